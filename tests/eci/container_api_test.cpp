// Container API: argument checks, browsing, reading, rewriting and CCSIDs.
#include "eci_test_util.h"

#if defined(__SANITIZE_ADDRESS__)
// Let impossible allocations fail with null, as the platform allocator does, so
// that the memory-shortage paths can be exercised.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}
#endif

using namespace ecitest;

namespace {

class Containers : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(ECI_createChannel("CONTAINERS", &ch), ECI_NO_ERROR); }
    void TearDown() override {
        if (ch) {
            EXPECT_EQ(ch->isLocked, 0);  // every call unlocks on every path
            EXPECT_EQ(ECI_deleteChannel(&ch), ECI_NO_ERROR);
        }
    }
    std::string browse(int (*fn)(chanTok, EciContainerInfo*)) {
        EciContainerInfo info;
        memset(&info, 0x55, sizeof info);
        int rc = fn(ch, &info);
        return rc == ECI_NO_ERROR ? std::string(info.name) : "rc=" + std::to_string(rc);
    }
    std::string first() { return browse(ECI_getFirstContainer); }
    std::string next() { return browse(ECI_getNextContainer); }
    void create(const char* name, const std::string& data = "") {
        ASSERT_EQ(ECI_createContainer(ch, name, ECI_BIT, 0, data.data(), data.size()), ECI_NO_ERROR) << name;
    }
    EciContainerInfo infoOf(const char* name) {
        EciContainerInfo out;
        memset(&out, 0x55, sizeof out);
        EXPECT_EQ(ECI_getContainerInfo(ch, name, &out), ECI_NO_ERROR) << name;
        return out;
    }
    std::string read(const char* name) {
        std::string out(infoOf(name).dataLength, '\0');
        size_t got = 99;
        char dummy;
        EXPECT_EQ(ECI_getContainerData(ch, name, out.empty() ? &dummy : out.data(), out.size(), 0, &got), 0);
        EXPECT_EQ(got, out.size());
        return out;
    }

    chanTok ch = nullptr;
};

}  // namespace

TEST_F(Containers, CreateChecksArgumentsInOrder) {
    TraceCapture trace(1);
    EXPECT_EQ(ECI_createContainer(nullptr, "X", 3, 0, nullptr, 5), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(ECI_createContainer(ch, "BAD NAME", 3, 0, nullptr, 5), ECI_ERR_INVALID_TYPE);
    EXPECT_EQ(ECI_createContainer(ch, "BAD NAME", ECI_BIT, 0, nullptr, 5), ECI_ERR_INVALID_DATA_LENGTH);
    size_t exceptions = 0;
    for (const auto& line : trace.lines()) exceptions += line.find("] *EXC* ") != std::string::npos;
    EXPECT_EQ(exceptions, 2u);  // 1346 and 1347: the data-length refusal writes no line
    EXPECT_EQ(ECI_createContainer(ch, "BAD NAME", ECI_BIT, 0, nullptr, 0), ECI_ERR_INVALID_NAME);
    EXPECT_EQ(ECI_createContainer(ch, "SAME", ECI_BIT, 0, nullptr, 0), ECI_NO_ERROR);
    EXPECT_EQ(ECI_createContainer(ch, "SAME", ECI_CHAR, 0, "x", 1), ECI_ERR_CONTAINER_EXISTS);
    EXPECT_EQ(ch->numContainers, 1);
    EXPECT_TRUE(tracedAs(trace, 1349,
                         "API.ECI_createContainer() Container \"SAME\" already exists in channel \"CONTAINERS\""));
}

TEST_F(Containers, InfoDescribesTheContainer) {
    ASSERT_EQ(ECI_createContainer(ch, "SIXTEEN_CHARS_16", ECI_BIT, 1208, "abc", 3), ECI_NO_ERROR);
    EciContainerInfo info = infoOf("SIXTEEN_CHARS_16");
    EXPECT_EQ(std::string(info.name, 17), std::string("SIXTEEN_CHARS_16") + '\0');
    EXPECT_EQ(info.type, ECI_BIT);
    EXPECT_EQ(info.ccsid, 0);  // a BIT container has no CCSID, whatever was given
    EXPECT_EQ(info.dataLength, 3u);
    EXPECT_EQ(ch->ccsid, -1);  // and leaves the channel's alone
    EXPECT_EQ(ECI_getContainerInfo(nullptr, "X", &info), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(ECI_getContainerInfo(ch, "X", nullptr), ECI_ERR_NULLINFOPTR);
    EXPECT_EQ(ECI_getContainerInfo(ch, "SIXTEEN_CHARS_1", &info), ECI_ERR_CONTAINER_NOTFOUND);
    EXPECT_EQ(ECI_getContainerInfo(ch, "sixteen_chars_16", &info), ECI_ERR_CONTAINER_NOTFOUND);
}

TEST_F(Containers, BrowseIsNewestFirstAndWrapsAround) {
    EXPECT_EQ(first(), "rc=-54");
    EXPECT_EQ(next(), "rc=-54");
    for (const char* name : {"A", "B", "C"}) create(name);
    EXPECT_EQ(next(), "C");  // without getFirst the walk starts at the first container
    EXPECT_EQ(first(), "C");
    EXPECT_EQ(next(), "B");
    EXPECT_EQ(next(), "A");
    EXPECT_EQ(next(), "rc=-54");
    EXPECT_EQ(next(), "C");
    EXPECT_EQ(ECI_getFirstContainer(ch, nullptr), ECI_ERR_NULLINFOPTR);
    EXPECT_EQ(ECI_getNextContainer(nullptr, nullptr), ECI_ERR_INVALID_CHANNEL);
}

TEST_F(Containers, DeletingUnderTheCursorContinuesWithTheSuccessor) {
    TraceCapture trace(4);
    for (const char* name : {"A", "B", "C", "D"}) create(name);
    EXPECT_EQ(first(), "D");
    EXPECT_EQ(next(), "C");
    EXPECT_EQ(ECI_deleteContainer(ch, "C"), ECI_NO_ERROR);
    EXPECT_EQ(next(), "B");
    EXPECT_EQ(first(), "D");
    EXPECT_EQ(ECI_deleteContainer(ch, "D"), ECI_NO_ERROR);  // the first one: cursor becomes NULL
    EXPECT_EQ(next(), "B");
    EXPECT_EQ(ECI_deleteContainer(ch, "A"), ECI_NO_ERROR);  // not under the cursor
    EXPECT_EQ(next(), "rc=-54");
    EXPECT_EQ(ch->numContainers, 1);
    auto moved = trace.linesWithId(1366);
    ASSERT_EQ(moved.size(), 2u);
    EXPECT_EQ(kvltest::traceMessage(moved[0]), "API.ECI_deleteContainer() Current container is now \"D\"");
    EXPECT_EQ(kvltest::traceMessage(moved[1]), "API.ECI_deleteContainer() Current container is now NULL");
    EXPECT_EQ(ECI_deleteContainer(ch, "A"), ECI_ERR_CONTAINER_NOTFOUND);
    EXPECT_EQ(ECI_deleteContainer(ch, nullptr), ECI_ERR_INVALID_NAME);
    EXPECT_EQ(ECI_deleteContainer(nullptr, "B"), ECI_ERR_INVALID_CHANNEL);
}

TEST_F(Containers, ReadsWithOffsetsAndPastTheEnd) {
    std::string data(50, '\0');
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>('0' + i % 40);
    create("FIFTY", data);
    create("NOTHING");
    struct Case {
        const char* name;
        size_t length, offset, expected;
    };
    const Case cases[] = {
        {"FIFTY", 100, 10, 40},     {"FIFTY", 5, 0, 5},         {"FIFTY", 50, 0, 50},
        {"FIFTY", 0, 10, 0},        {"FIFTY", 10, 50, 0},       {"FIFTY", 10, 51, 0},
        {"FIFTY", SIZE_MAX, 49, 1}, {"FIFTY", 10, SIZE_MAX, 0}, {"NOTHING", 10, 0, 0},
    };
    for (const auto& c : cases) {
        std::vector<char> buffer(64, '#');
        size_t got = 12345;
        // A length beyond the buffer is safe here: at most `expected` (< 64) bytes are copied.
        EXPECT_EQ(ECI_getContainerData(ch, c.name, buffer.data(), c.length, c.offset, &got), ECI_NO_ERROR);
        EXPECT_EQ(got, c.expected) << c.name << " length " << c.length << " offset " << c.offset;
        if (c.expected) {
            EXPECT_EQ(std::string(buffer.data(), c.expected), data.substr(c.offset, c.expected));
        }
        EXPECT_EQ(buffer[c.expected], '#') << "wrote past the count";
    }
    char buffer[8];
    EXPECT_EQ(ECI_getContainerData(ch, "FIFTY", buffer, 4, 2, nullptr), ECI_NO_ERROR);
    EXPECT_EQ(std::string(buffer, 4), "2345");
    EXPECT_EQ(ECI_getContainerData(ch, "FIFTY", nullptr, 4, 0, nullptr), ECI_ERR_NULLPTR);
    EXPECT_EQ(ECI_getContainerData(nullptr, "FIFTY", buffer, 4, 0, nullptr), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(ECI_getContainerData(ch, "MISSING", buffer, 4, 0, nullptr), ECI_ERR_CONTAINER_NOTFOUND);
}

TEST_F(Containers, SetDataReplacesEmptiesAndKeepsTypeAndCcsid) {
    TraceCapture trace(1);
    ASSERT_EQ(ECI_createContainer(ch, "TEXT", ECI_CHAR, 37, "first", 5), ECI_NO_ERROR);
    EXPECT_EQ(ECI_setContainerData(ch, "TEXT", "other", 5), ECI_NO_ERROR);  // same length
    EXPECT_EQ(read("TEXT"), "other");
    EXPECT_EQ(ECI_setContainerData(ch, "TEXT", "a longer text", 13), ECI_NO_ERROR);
    EXPECT_EQ(read("TEXT"), "a longer text");
    EXPECT_EQ(ECI_setContainerData(ch, "TEXT", "x", 0), ECI_NO_ERROR);
    EXPECT_EQ(read("TEXT"), "");
    kvlContainer* cont = clapiFindContainer(ch, "TEXT", nullptr);
    ASSERT_NE(cont, nullptr);
    EXPECT_EQ(cont->dataPtr, nullptr);
    EXPECT_EQ(ECI_setContainerData(ch, "TEXT", nullptr, 0), ECI_NO_ERROR);
    EXPECT_EQ(ECI_setContainerData(ch, "TEXT", "back", 4), ECI_NO_ERROR);
    EXPECT_EQ(read("TEXT"), "back");
    EXPECT_EQ(infoOf("TEXT").type, ECI_CHAR);
    EXPECT_EQ(infoOf("TEXT").ccsid, 37);

    EXPECT_EQ(ECI_setContainerData(ch, "TEXT", nullptr, 5), ECI_ERR_INVALID_DATA_LENGTH);
    EXPECT_TRUE(tracedAs(trace, 1392, "API.ECI_setContainerData() data is NULL when dataLength is 5"));
    EXPECT_EQ(ECI_setContainerData(ch, "MISSING", "x", 1), ECI_ERR_CONTAINER_NOTFOUND);
    EXPECT_EQ(ECI_setContainerData(nullptr, "TEXT", "x", 1), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(read("TEXT"), "back");
}

TEST_F(Containers, MemoryShortageLeavesNothingBehind) {
    const char small[4] = {1, 2, 3, 4};
    EXPECT_EQ(ECI_createContainer(ch, "HUGE", ECI_BIT, 0, small, SIZE_MAX), ECI_ERR_MEMORY_SHORTAGE);
    EXPECT_EQ(ch->numContainers, 0);
    create("SMALL", "abcd");
    EXPECT_EQ(ECI_setContainerData(ch, "SMALL", small, SIZE_MAX), ECI_ERR_MEMORY_SHORTAGE);
    EXPECT_EQ(infoOf("SMALL").dataLength, 0u);  // left empty
}

TEST_F(Containers, CcsidComesFromTheContainerTheChannelOrTheCodePage) {
    const int processCcsid = clapiCcsidForCodePage(platformAnsiCodePage());
    TraceCapture trace(2);
    ASSERT_EQ(ECI_createContainer(ch, "BITS", ECI_BIT, 0, nullptr, 0), ECI_NO_ERROR);
    EXPECT_EQ(ch->ccsid, -1);
    ASSERT_EQ(ECI_createContainer(ch, "LOCAL", ECI_CHAR, 0, "a", 1), ECI_NO_ERROR);
    EXPECT_EQ(ch->ccsid, processCcsid);
    EXPECT_EQ(infoOf("LOCAL").ccsid, processCcsid);
    ASSERT_EQ(ECI_createContainer(ch, "EBCDIC", ECI_CHAR, 37, "a", 1), ECI_NO_ERROR);
    EXPECT_EQ(infoOf("EBCDIC").ccsid, 37);
    EXPECT_EQ(ch->ccsid, processCcsid);  // the channel keeps its first CCSID
    ASSERT_EQ(ECI_createContainer(ch, "INHERIT", ECI_CHAR, 0, "a", 1), ECI_NO_ERROR);
    EXPECT_EQ(infoOf("INHERIT").ccsid, processCcsid);
    EXPECT_EQ(trace.linesWithId(1355).size(), 1u);
    EXPECT_EQ(trace.linesWithId(1450).size(), 0u);
    EXPECT_EQ(trace.linesWithId(1354).size(), 3u);

    chanTok other = nullptr;
    ASSERT_EQ(ECI_createChannel("OTHER", &other), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createContainer(other, "GIVEN", ECI_CHAR, 1208, "a", 1), ECI_NO_ERROR);
    EXPECT_EQ(other->ccsid, 1208);
    EXPECT_TRUE(tracedAs(trace, 1450, "API.ECI_createContainer() Channel CCSID set to 1208 from Container"));
    EXPECT_EQ(ECI_deleteChannel(&other), ECI_NO_ERROR);
}
