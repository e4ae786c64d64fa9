// Socket buffer primitives over a real loopback connection: the bytes compared are
// the bytes that crossed the socket.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>

#include "comms/clapi_socketbuffer.h"
#include "comms/clapi_stream.h"
#include "kvlclient.h"
#include "loopback.h"
#include "trace_capture.h"

using kvltest::Bytes;
using kvltest::TraceCapture;
using kvltest::Wire;

namespace {

Bytes pattern(size_t n, unsigned seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((i * 31 + seed) & 0xFF);
    return b;
}

class SocketBuffer : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(net.ok()); }
    int writing(uint64_t flowLen) { return initWriteBuffer(&b.sb, net.client, flowLen); }
    int reading(uint64_t flowLen) { return initReadBuffer(&b.sb, net.client, flowLen); }

    kvltest::Loopback net;
    kvltest::ScopedBuffer b;
};

}  // namespace

TEST_F(SocketBuffer, InitCapsAtMaximumReusesALargerBufferAndFreesOnce) {
    TraceCapture trace(1);
    ASSERT_EQ(initWriteBuffer(&b.sb, 7, 40000), 0);
    EXPECT_EQ(b.sb.bufferSize, 33000u);
    EXPECT_EQ(b.sb.dataRemaining, 40000u);
    EXPECT_EQ(memcmp(b.sb.eyecatcher, "KVLSCKBF", 8), 0);
    uint8_t* first = b.sb.bufferStart;
    ASSERT_EQ(initWriteBuffer(&b.sb, 7, 100), 0);
    EXPECT_EQ(b.sb.bufferStart, first);
    EXPECT_EQ(b.sb.dataRemaining, 100u);
    ASSERT_EQ(initReadBuffer(&b.sb, 7, 32), 0);
    EXPECT_EQ(b.sb.bufferStart, first);
    EXPECT_EQ(b.sb.bufferPos, nullptr);

    EXPECT_EQ(freeBuffer(&b.sb), 0);
    EXPECT_EQ(b.sb.bufferStart, nullptr);
    EXPECT_EQ(b.sb.eyecatcher[0], 0);
    EXPECT_EQ(freeBuffer(&b.sb), KVL_ERR_SYSTEM_ERROR);
    EXPECT_EQ(trace.linesWithId(2517).size(), 1u);
}

TEST_F(SocketBuffer, WritePrimitivesAreBigEndianOnTheWire) {
    ASSERT_EQ(writing(18), 0);
    writeByte(&b.sb, 0xAB);
    writeShort(&b.sb, 0x1234);
    writeInt(&b.sb, 0xDEADBEEF);
    writeBytes(&b.sb, "xyz", 3);
    writePaddedBytes(&b.sb, "abc", 3, 8);
    ASSERT_EQ(flushBuffer(&b.sb), 0);
    EXPECT_EQ(b.sb.dataRemaining, 0u);
    Bytes expected = Wire().u8(0xAB).be16(0x1234).be32(0xDEADBEEF).text("xyzabc").fill(5, 0).bytes();
    EXPECT_EQ(net.receive(expected.size()), expected);
}

TEST_F(SocketBuffer, WriteFlushesAFullBufferBeforeTheNextValue) {
    // A 6-byte buffer: the second int forces a flush; a 9-byte padded field is larger
    // than the buffer and goes out in pieces without overrunning it.
    ASSERT_EQ(writing(6), 0);
    writeInt(&b.sb, 1);
    writeInt(&b.sb, 2);
    writePaddedBytes(&b.sb, "ab", 2, 9);
    ASSERT_EQ(flushBuffer(&b.sb), 0);
    Bytes expected = Wire().be32(1).be32(2).text("ab").fill(7, 0).bytes();
    EXPECT_EQ(net.receive(expected.size()), expected);
}

TEST_F(SocketBuffer, WriteSendsALargeBlockDirectlyAfterTheBufferedBytes) {
    TraceCapture trace(4);
    KVL_setAPITraceDataLength(16);
    Bytes block = pattern(50000, 7);
    Bytes got;
    std::thread reader([&] { got = net.receive(50010); });
    ASSERT_EQ(writing(60000), 0);
    writeBytes(&b.sb, "0123456789", 10);
    writeBytes(&b.sb, block.data(), block.size());
    reader.join();
    EXPECT_EQ(b.sb.lastError, 0);
    EXPECT_EQ(b.sb.bufferLen, 0u);
    EXPECT_EQ(b.sb.dataRemaining, 60000u - 50010u);
    EXPECT_EQ(got, Wire().text("0123456789").raw(block).bytes());
    EXPECT_EQ(trace.linesWithId(2562).size(), 1u);
    EXPECT_EQ(trace.linesWithId(2563).size(), 1u);
}

TEST_F(SocketBuffer, MaskTransformsOnTheWireAndShowsAsterisksInTheTrace) {
    TraceCapture trace(4);
    ASSERT_EQ(writing(6 + 8 + 8), 0);
    writeBytesMasked(&b.sb, "abc", 0);  // refused
    EXPECT_EQ(b.sb.bufferLen, 0u);
    writeBytes(&b.sb, "<", 1);
    writeBytesMasked(&b.sb, "ab", 2);
    writeBytesMasked(&b.sb, "xyz", 3);
    ASSERT_EQ(flushBuffer(&b.sb), 0);
    EXPECT_EQ(b.sb.maskedList, nullptr);
    // ~'a', 'a'^'b'; ~'x', 'x'^'y', 'y'^'z'
    EXPECT_EQ(net.receive(6), (Bytes{'<', 0x9E, 0x03, 0x87, 0x01, 0x03}));
    EXPECT_EQ(kvltest::dumpedHex(trace.text(), 2526), "3C2A2A2A2A2A");

    // Same buffer again from its start: a padded mask leaves the tail of the field as
    // the previous flow wrote it.
    writeBytes(&b.sb, "EEEEEEEE", 8);
    ASSERT_EQ(flushBuffer(&b.sb), 0);
    writePaddedBytesMasked(&b.sb, "ab\x01", 3, 8);
    EXPECT_EQ(b.sb.bufferLen, 8u);
    ASSERT_EQ(flushBuffer(&b.sb), 0);
    EXPECT_EQ(net.receive(16), Wire().text("EEEEEEEE").u8(0x9E).u8(0x03).u8(0x63).text("EEEEE").bytes());
}

TEST_F(SocketBuffer, FailedSendKeepsMaskedRegionsRestoredAndLeavesTheBufferDead) {
    TraceCapture trace(4);
    // No socket: the send fails after the trace, so the regions stay for inspection.
    ASSERT_EQ(initWriteBuffer(&b.sb, PLATFORM_INVALID_SOCKET, 64), 0);
    writeBytesMasked(&b.sb, "ab", 2);
    writeBytesMasked(&b.sb, "0123456789", 10);
    EXPECT_EQ(flushBuffer(&b.sb), KVL_ERR_LOSTGWCON);
    EXPECT_NE(b.sb.lastError, 0);
    EXPECT_EQ(kvltest::dumpedHex(trace.text(), 2526), kvltest::hex(Bytes(12, '*')));
    // The save areas are stamped after use, a short one only within its own length.
    const maskedRegion* longRegion = b.sb.maskedList;  // newest first
    ASSERT_TRUE(longRegion && longRegion->next && longRegion->regionLen == 10 && longRegion->next->regionLen == 2);
    EXPECT_EQ(Bytes(longRegion->savedBytes, longRegion->savedBytes + 8), Bytes(8, '*'));
    EXPECT_EQ(Bytes(longRegion->next->savedBytes, longRegion->next->savedBytes + 2), Bytes(2, '*'));
    // The buffer holds the real masked bytes again after the dump.
    EXPECT_EQ(Bytes(b.sb.bufferStart, b.sb.bufferStart + 3), (Bytes{0x9E, 0x03, static_cast<uint8_t>(~'0')}));

    writeInt(&b.sb, 2);
    writeBytes(&b.sb, "abc", 3);
    writeBytesMasked(&b.sb, "pw", 2);
    EXPECT_EQ(b.sb.bufferLen, 12u);
    EXPECT_EQ(flushBuffer(&b.sb), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(trace.linesWithId(2528).size(), 1u);  // the second flush did not try to send
    // A new flow on the same record starts healthy.
    ASSERT_EQ(initWriteBuffer(&b.sb, PLATFORM_INVALID_SOCKET, 64), 0);
    EXPECT_EQ(b.sb.lastError, 0);
}

TEST_F(SocketBuffer, ReadJoinsASplitValueAndPutsALargeBlockStraightIntoTheCallersMemory) {
    TraceCapture trace(4);
    KVL_setAPITraceDataLength(16);
    Bytes head = pattern(32998, 3);
    Bytes block = pattern(70000, 11);
    net.sendInBackground(Wire().raw(head).be32(0xCAFEF00D).be32(7).raw(block).be32(8).bytes());
    ASSERT_EQ(reading(head.size() + 4), 0);
    Bytes got(head.size());
    readBytes(&b.sb, got.data(), got.size());
    EXPECT_EQ(got, head);
    EXPECT_EQ(b.sb.bufferLen, 2u);  // half of the int is in the buffer, half on the socket
    EXPECT_EQ(readInt(&b.sb), 0xCAFEF00Du);

    // After the first int the buffer holds 32996 bytes of the block; the other 37004
    // cannot fit in the buffer and are received into the destination itself.
    ASSERT_EQ(reading(4 + block.size() + 4), 0);
    EXPECT_EQ(readInt(&b.sb), 7u);
    got.resize(block.size());
    readBytes(&b.sb, got.data(), got.size());
    EXPECT_EQ(got, block);
    EXPECT_EQ(readInt(&b.sb), 8u);
    EXPECT_EQ(sockBufferFlowRemaining(&b.sb), 0u);
    EXPECT_EQ(trace.linesWithId(2532).size(), 1u);
}

TEST_F(SocketBuffer, PeerClosingMidFlowKillsTheBufferAndItsRemainder) {
    net.send(Wire().be32(42).be16(7));
    net.closePeer();
    ASSERT_EQ(reading(100), 0);
    EXPECT_EQ(fillBuffer(&b.sb), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(readInt(&b.sb), 0u);  // dead: the six bytes that did arrive are not handed out
    EXPECT_EQ(sockBufferErrorRc(&b.sb), KVL_ERR_LOSTGWCON);
    char data[50];
    memset(data, 0x11, sizeof data);
    readBytes(&b.sb, data, sizeof data);
    EXPECT_EQ(data[0], 0x11);
    EXPECT_EQ(fillBuffer(&b.sb), KVL_ERR_LOSTGWCON);
    skipFlowRemainder(&b.sb);  // must not wait for bytes that will never come
    EXPECT_EQ(sockBufferErrorRc(&b.sb), KVL_ERR_LOSTGWCON);
}

TEST_F(SocketBuffer, ReadDecodesBigEndianAndNeverPastTheFlow) {
    TraceCapture trace(1);
    net.send(Wire().u8(0xAB).be16(0x1234).be32(0xDEADBEEF).text("hello").be32(1).be16(2).be32(3).be32(4));
    ASSERT_EQ(reading(12), 0);
    EXPECT_EQ(readByte(&b.sb), 0xAB);
    EXPECT_EQ(readShort(&b.sb), 0x1234);
    EXPECT_EQ(readInt(&b.sb), 0xDEADBEEFu);
    char text[5];
    readBytes(&b.sb, text, sizeof text);
    EXPECT_EQ(std::string(text, 5), "hello");
    EXPECT_EQ(sockBufferFlowRemaining(&b.sb), 0u);
    EXPECT_EQ(b.sb.lastError, 0);

    ASSERT_EQ(reading(6), 0);  // the next flow: an int and a short
    EXPECT_EQ(readInt(&b.sb), 1u);
    EXPECT_EQ(readInt(&b.sb), 0u);  // only 2 bytes of this flow remain
    EXPECT_EQ(b.sb.lastError, SOCKBUFFER_ERR_FLOW_OVERRUN);
    EXPECT_EQ(sockBufferErrorRc(&b.sb), KVL_ERR_SYSTEM_ERROR);
    EXPECT_EQ(readShort(&b.sb), 0u);  // dead until initialised again
    EXPECT_EQ(trace.linesWithId(2535).size(), 1u);

    ASSERT_EQ(reading(8), 0);
    uint8_t big[9];
    readBytes(&b.sb, big, sizeof big);  // one byte too many: refused before any recv
    EXPECT_EQ(b.sb.lastError, SOCKBUFFER_ERR_FLOW_OVERRUN);
    ASSERT_EQ(reading(8), 0);
    EXPECT_EQ(readInt(&b.sb), 3u);
    EXPECT_EQ(readInt(&b.sb), 4u);
}

TEST_F(SocketBuffer, SkipIsExactAcrossRefillsAndTheRemainderIsDroppedAfterARefusedRead) {
    // A 70000-byte flow with an int after 36000 bytes, then the next flow.
    Bytes flow = Wire().fill(36000, 0x33).be32(99).fill(33996, 0x44).be32(0x600D).bytes();
    net.sendInBackground(flow);
    ASSERT_EQ(reading(70000), 0);
    skipBytes(&b.sb, 36000);
    EXPECT_EQ(readInt(&b.sb), 99u);
    EXPECT_EQ(b.sb.lastError, 0);
    Bytes tooMuch(40000);
    readBytes(&b.sb, tooMuch.data(), tooMuch.size());
    EXPECT_EQ(b.sb.lastError, SOCKBUFFER_ERR_FLOW_OVERRUN);
    EXPECT_GT(b.sb.dataRemaining, 0u);  // part of the flow is still on the socket
    skipFlowRemainder(&b.sb);
    EXPECT_EQ(sockBufferFlowRemaining(&b.sb), 0u);
    EXPECT_EQ(b.sb.lastError, SOCKBUFFER_ERR_FLOW_OVERRUN);  // the flow stays failed
    ASSERT_EQ(reading(4), 0);
    EXPECT_EQ(readInt(&b.sb), 0x600Du);
}

TEST_F(SocketBuffer, WaitTimesOutReturnsOnLateDataAndFailsOnAnInvalidSocket) {
    TraceCapture trace(1);
    ASSERT_EQ(reading(4), 0);
    EXPECT_EQ(waitForResponse(&b.sb, 1), KVL_ERR_CONNECTTIMEOUT);
    EXPECT_EQ(trace.linesWithId(2504).size(), 1u);
    EXPECT_TRUE(trace.contains("Timed out waiting for handshake response"));
    net.sendInBackground(Wire().be32(5).bytes(), 100);
    EXPECT_EQ(waitForResponse(&b.sb, 0), 0);  // no limit: returns once the data is there
    EXPECT_EQ(readInt(&b.sb), 5u);

    kvltest::ScopedBuffer bad;
    ASSERT_EQ(initReadBuffer(&bad.sb, PLATFORM_INVALID_SOCKET, 4), 0);
    EXPECT_EQ(waitForResponse(&bad.sb, 1), KVL_ERR_LOSTGWCON);
    EXPECT_NE(bad.sb.lastError, 0);
    EXPECT_EQ(readInt(&bad.sb), 0u);
    EXPECT_EQ(fillBuffer(&bad.sb), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(trace.linesWithId(2523).size(), 1u);
}

// A read buffer's pages may go back to the OS between flows; only a buffer
// that holds no unread bytes gives them back, and the next flow reads as usual.
TEST_F(SocketBuffer, AnIdleReadBufferGivesItsMemoryBackAndReadsTheNextFlow) {
    ASSERT_EQ(reading(33000), 0);
    EXPECT_TRUE(b.sb.pageBacked);
    Bytes first = pattern(6000, 1);
    net.sendInBackground(first, 0);
    ASSERT_EQ(reading(first.size()), 0);  // the flow's length, in the buffer allocated above
    Bytes got(first.size());
    readBytes(&b.sb, got.data(), 4);
    sockBufferReleaseIdle(&b.sb);  // bytes are still buffered: nothing is dropped
    readBytes(&b.sb, got.data() + 4, got.size() - 4);
    EXPECT_EQ(got, first);
    ASSERT_EQ(b.sb.bufferLen, 0u);
    sockBufferReleaseIdle(&b.sb);

    Bytes second = pattern(33000, 7);
    net.sendInBackground(second, 0);
    ASSERT_EQ(reading(second.size()), 0);
    ASSERT_EQ(fillBuffer(&b.sb), 0);
    Bytes again(second.size());
    readBytes(&b.sb, again.data(), again.size());
    EXPECT_EQ(b.sb.lastError, 0);
    EXPECT_EQ(again, second);
}

namespace {
// A stream that only records that it was destroyed.
class CountedStream : public clapiStream {
public:
    explicit CountedStream(int* destroyed) : destroyed_(destroyed) {}
    ~CountedStream() override { ++*destroyed_; }
    long long sendAll(const uint8_t*, size_t len, int*) override { return static_cast<long long>(len); }
    long long recv(uint8_t*, size_t, int*) override { return 0; }
    int waitReadable(int) override { return 1; }

private:
    int* destroyed_;
};
}  // namespace

// Every flow finds its socket's stream; a socket has at most one, and releasing
// it destroys it once. Many sockets at once, released in another order.
TEST(StreamRegistry, StreamsAreFoundByTheirSocketAndReleasedOnce) {
    int destroyed = 0;
    constexpr platformSocket kFirst = 900000;  // no socket of this process has such a number
    constexpr int kCount = 300;
    for (int i = 0; i < kCount; ++i) ASSERT_EQ(0, clapiStreamAttach(kFirst + i, new CountedStream(&destroyed)));
    auto* spare = new CountedStream(&destroyed);
    EXPECT_EQ(-1, clapiStreamAttach(kFirst + 7, spare)) << "a second stream on one socket";
    delete spare;
    EXPECT_EQ(1, destroyed);
    EXPECT_EQ(nullptr, clapiStreamFor(kFirst + kCount));
    clapiStream* seventh = clapiStreamFor(kFirst + 7);
    ASSERT_NE(nullptr, seventh);
    EXPECT_NE(seventh, clapiStreamFor(kFirst + 8));
    for (int i = kCount - 1; i >= 0; i -= 2) clapiStreamRelease(kFirst + i);
    for (int i = 0; i < kCount; i += 2) clapiStreamRelease(kFirst + i);
    EXPECT_EQ(1 + kCount, destroyed);
    clapiStreamRelease(kFirst + 7);  // already gone: nothing happens
    EXPECT_EQ(1 + kCount, destroyed);
    EXPECT_EQ(nullptr, clapiStreamFor(kFirst + 7));
}
