// The hexadecimal dump under a DATA line.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "impl/clapi_trace.h"
#include "kvlclient.h"
#include "trace_capture.h"

namespace {
std::string addressColumn(const void* p) {
    char b[32];
    snprintf(b, sizeof b, "0x%016lX: ", (unsigned long)(reinterpret_cast<uintptr_t>(p) & 0xFFFFFFFFu));
    return b;
}

// The dump lines that follow the DATA line with the given id.
std::vector<std::string> dumpLines(const kvltest::TraceCapture& trace, int id) {
    auto lines = trace.lines();
    std::vector<std::string> out;
    bool inDump = false;
    char tag[16];
    snprintf(tag, sizeof tag, "[%4.4d] DATA", id);
    for (const auto& l : lines) {
        if (l.find(tag) != std::string::npos) {
            inDump = true;
            continue;
        }
        if (inDump && l.rfind("0x", 0) == 0) out.push_back(l);
        else if (inDump && l.rfind("Data truncation", 0) != 0) inDump = false;
    }
    return out;
}
}  // namespace

TEST(HexDump, WorkedLineComesOutByteForByte) {
    kvltest::TraceCapture trace(4);
    const uint8_t data[16] = {0x41, 0x42, 0x00, 0x01, 0x02, 0x03, 0x04, 0x05,
                              0x06, 0x07, 0x08, 0x09, 0x0A, 0x0B, 0x0C, 0x0D};
    CLAPI_TRACE_DATA(9100, data, sizeof data, "test.dump() data=%p len=%lu stopword=%8.8X\n", (void*)data,
                     (unsigned long)sizeof data, 0u);
    auto lines = trace.lines();
    auto header = trace.linesWithId(9100);
    ASSERT_EQ(header.size(), 1u);
    EXPECT_NE(header[0].find("stopword=00000000"), std::string::npos);
    EXPECT_TRUE(trace.contains("Data truncation size=128, offset=0\n"));
    auto dump = dumpLines(trace, 9100);
    ASSERT_EQ(dump.size(), 1u);
    EXPECT_EQ(dump[0], addressColumn(data) + "41420001 02030405 06070809 0A0B0C0D : AB.............. ");
}

TEST(HexDump, TruncationLengthAndPartialLastLine) {
    kvltest::TraceCapture trace(4);
    std::vector<uint8_t> data(300);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i);
    CLAPI_TRACE_DATA(9101, data.data(), data.size(), "a\n");
    EXPECT_EQ(dumpLines(trace, 9101).size(), 8u) << "128 bytes by default";

    KVL_setAPITraceDataLength(0);
    CLAPI_TRACE_DATA(9102, data.data(), data.size(), "b\n");
    auto all = dumpLines(trace, 9102);
    ASSERT_EQ(all.size(), 19u);
    // 300 = 18 * 16 + 12: the last line keeps the column with four blank pairs.
    const uint8_t* last = data.data() + 288;
    EXPECT_EQ(all.back(), addressColumn(last) + "20212223 24252627 28292A2B          :  !\"#$%&'()*+");
    EXPECT_EQ(all[2], addressColumn(data.data() + 32) + "20212223 24252627 28292A2B 2C2D2E2F :  !\"#$%&'()*+,-./ ");
}

TEST(HexDump, OffsetMovesTheStartAndAnOffsetPastTheEndDumpsNothing) {
    kvltest::TraceCapture trace(4);
    uint8_t data[40];
    for (int i = 0; i < 40; ++i) data[i] = static_cast<uint8_t>('a' + i % 26);
    KVL_setAPITraceDataOffset(20);
    KVL_setAPITraceDataLength(16);
    CLAPI_TRACE_DATA(9103, data, sizeof data, "c\n");
    auto lines = dumpLines(trace, 9103);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].substr(0, 20), addressColumn(data + 20));
    EXPECT_TRUE(trace.contains("Data truncation size=16, offset=20\n"));

    KVL_setAPITraceDataOffset(4000);
    CLAPI_TRACE_DATA(9104, data, sizeof data, "d\n");
    EXPECT_TRUE(dumpLines(trace, 9104).empty());
    EXPECT_EQ(trace.linesWithId(1049).size(), 1u);
    EXPECT_EQ(kvltest::traceMessage(trace.linesWithId(1052)[1]),
              "API.KVL_setAPITraceDataOffset() Trace data offset changed from 20 to 4000");
}

// %lu reads a 32-bit unsigned long on every build, so Linux writes what Windows writes.
TEST(HexDump, LongValuesPrintAsThirtyTwoBitsOnEveryBuild) {
    kvltest::TraceCapture trace(4);
    KVL_setAPITraceDataLength(-1);
    KVL_setAPITraceDataOffset(-2);
    uint8_t data[4] = {1, 2, 3, 4};
    CLAPI_TRACE_DATA(9105, data, sizeof data, "e\n");
    struct Case {
        int id;
        size_t index;
        const char* message;
    };
    const Case cases[] = {
        {1048, 0, "API.KVL_setAPITraceDataLength(dataLength=4294967295)"},
        {1049, 0, "API.KVL_setAPITraceDataLength() Trace data truncation length changed from 128 to 4294967295"},
        {1051, 0, "API.KVL_setAPITraceDataOffset(dataOffset=4294967294)"},
        {1052, 0, "API.KVL_setAPITraceDataOffset() Trace data offset changed from 0 to 4294967294"},
    };
    for (const auto& c : cases) {
        auto lines = trace.linesWithId(c.id);
        ASSERT_GT(lines.size(), c.index) << c.id;
        EXPECT_EQ(kvltest::traceMessage(lines[c.index]), c.message);
    }
    EXPECT_TRUE(trace.contains("Data truncation size=4294967295, offset=4294967294\n")) << trace.text();
    KVL_setAPITraceDataOffset(0);
    EXPECT_TRUE(trace.contains("changed from 4294967294 to 0"));

    EXPECT_EQ(clapiLu(uint64_t{0x100000005}), 5ul) << "a wider value keeps its low 32 bits";
    EXPECT_EQ(clapiLu(-1), 4294967295ul);
}
