// Socket buffer primitives over a real loopback connection: the bytes compared are
// the bytes that crossed the socket.
#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <thread>

#include "comms/clapi_socketbuffer.h"
#include "kvlclient.h"
#include "loopback.h"
#include "trace_capture.h"

using kvltest::Bytes;
using kvltest::Loopback;
using kvltest::TraceCapture;
using kvltest::Wire;

namespace {

struct ScopedBuffer {
    sockBuffer sb{};
    ~ScopedBuffer() {
        if (sb.bufferStart) freeBuffer(&sb);
    }
};

Bytes pattern(size_t n, unsigned seed) {
    Bytes b(n);
    for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>((i * 31 + seed) & 0xFF);
    return b;
}

std::string dumpAfter(const TraceCapture& trace, int id) { return kvltest::dumpedHex(trace.text(), id); }

}  // namespace

TEST(SocketBufferInit, CapsAtMaximumAndReusesALargerBuffer) {
    ScopedBuffer w;
    ASSERT_EQ(initWriteBuffer(&w.sb, 7, 40000), 0);
    EXPECT_EQ(w.sb.bufferSize, 33000u);
    EXPECT_EQ(w.sb.dataRemaining, 40000u);
    EXPECT_EQ(memcmp(w.sb.eyecatcher, "KVLSCKBF", 8), 0);
    EXPECT_EQ(w.sb.bufferPos, w.sb.bufferStart);
    uint8_t* first = w.sb.bufferStart;

    ASSERT_EQ(initWriteBuffer(&w.sb, 7, 100), 0);
    EXPECT_EQ(w.sb.bufferStart, first);
    EXPECT_EQ(w.sb.bufferSize, 33000u);
    EXPECT_EQ(w.sb.dataRemaining, 100u);

    ASSERT_EQ(initReadBuffer(&w.sb, 7, 32), 0);
    EXPECT_EQ(w.sb.bufferStart, first);
    EXPECT_EQ(w.sb.bufferPos, nullptr);
}

TEST(SocketBufferInit, SecondFreeIsRefused) {
    TraceCapture trace(1);
    sockBuffer sb{};
    ASSERT_EQ(initWriteBuffer(&sb, 7, 16), 0);
    EXPECT_EQ(freeBuffer(&sb), 0);
    EXPECT_EQ(sb.bufferStart, nullptr);
    EXPECT_EQ(sb.eyecatcher[0], 0);
    EXPECT_EQ(freeBuffer(&sb), KVL_ERR_SYSTEM_ERROR);
    EXPECT_EQ(trace.linesWithId(2517).size(), 1u);
}

TEST(SocketBufferWrite, PrimitivesAreBigEndianOnTheWire) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    ScopedBuffer w;
    ASSERT_EQ(initWriteBuffer(&w.sb, net.client, 18), 0);
    writeByte(&w.sb, 0xAB);
    writeShort(&w.sb, 0x1234);
    writeInt(&w.sb, 0xDEADBEEF);
    writeBytes(&w.sb, "xyz", 3);
    writePaddedBytes(&w.sb, "abc", 3, 8);
    ASSERT_EQ(flushBuffer(&w.sb), 0);
    EXPECT_EQ(w.sb.dataRemaining, 0u);
    Bytes expected = Wire().u8(0xAB).be16(0x1234).be32(0xDEADBEEF).text("xyzabc").fill(5, 0).bytes();
    EXPECT_EQ(net.receive(expected.size()), expected);
}

TEST(SocketBufferWrite, FullBufferIsFlushedBeforeTheNextValue) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    ScopedBuffer w;
    // A 6-byte buffer: the third int cannot fit and forces a flush; a 9-byte padded
    // field is larger than the buffer and goes out in pieces without overrunning it.
    ASSERT_EQ(initWriteBuffer(&w.sb, net.client, 6), 0);
    writeInt(&w.sb, 1);
    writeInt(&w.sb, 2);
    writePaddedBytes(&w.sb, "ab", 2, 9);
    ASSERT_EQ(flushBuffer(&w.sb), 0);
    Bytes expected = Wire().be32(1).be32(2).text("ab").fill(7, 0).bytes();
    EXPECT_EQ(net.receive(expected.size()), expected);
}

TEST(SocketBufferWrite, LargeBlockIsSentDirectlyAfterTheBufferedBytes) {
    TraceCapture trace(4);
    KVL_setAPITraceDataLength(16);
    Loopback net;
    ASSERT_TRUE(net.ok());
    Bytes block = pattern(50000, 7);
    Bytes received;
    std::thread reader([&] { received = net.receive(50010); });
    ScopedBuffer w;
    ASSERT_EQ(initWriteBuffer(&w.sb, net.client, 60000), 0);
    writeBytes(&w.sb, "0123456789", 10);
    writeBytes(&w.sb, block.data(), block.size());
    EXPECT_EQ(w.sb.lastError, 0);
    EXPECT_EQ(w.sb.bufferLen, 0u);
    EXPECT_EQ(w.sb.dataRemaining, 60000u - 50010u);
    reader.join();
    ASSERT_EQ(received.size(), 50010u);
    EXPECT_EQ(Bytes(received.begin(), received.begin() + 10), Wire().text("0123456789").bytes());
    EXPECT_EQ(Bytes(received.begin() + 10, received.end()), block);
    EXPECT_EQ(trace.linesWithId(2562).size(), 1u);
    EXPECT_EQ(trace.linesWithId(2563).size(), 1u);
}

TEST(SocketBufferMask, TransformOnTheWireAsterisksInTheTrace) {
    TraceCapture trace(4);
    Loopback net;
    ASSERT_TRUE(net.ok());
    ScopedBuffer w;
    ASSERT_EQ(initWriteBuffer(&w.sb, net.client, 6), 0);
    writeBytes(&w.sb, "<", 1);
    writeBytesMasked(&w.sb, "ab", 2);
    writeBytesMasked(&w.sb, "xyz", 3);
    ASSERT_EQ(flushBuffer(&w.sb), 0);
    EXPECT_EQ(w.sb.maskedList, nullptr);
    // ~'a', 'a'^'b'; ~'x', 'x'^'y', 'y'^'z'
    Bytes expected{'<', 0x9E, 0x03, 0x87, 0x01, 0x03};
    EXPECT_EQ(net.receive(expected.size()), expected);
    EXPECT_EQ(dumpAfter(trace, 2526), "3C2A2A2A2A2A");
}

TEST(SocketBufferMask, SaveAreaStampStaysWithinAShortRegion) {
    TraceCapture trace(4);
    ScopedBuffer w;
    // No socket: the send fails after the trace, so the regions stay for inspection.
    ASSERT_EQ(initWriteBuffer(&w.sb, PLATFORM_INVALID_SOCKET, 16), 0);
    writeBytesMasked(&w.sb, "ab", 2);
    writeBytesMasked(&w.sb, "0123456789", 10);
    EXPECT_EQ(flushBuffer(&w.sb), KVL_ERR_LOSTGWCON);
    ASSERT_NE(w.sb.maskedList, nullptr);
    const maskedRegion* longRegion = w.sb.maskedList;
    const maskedRegion* shortRegion = longRegion->next;
    ASSERT_NE(shortRegion, nullptr);
    ASSERT_EQ(shortRegion->regionLen, 2u);
    EXPECT_EQ(memcmp(shortRegion->savedBytes, "**", 2), 0);
    ASSERT_EQ(longRegion->regionLen, 10u);
    EXPECT_EQ(memcmp(longRegion->savedBytes, "********", 8), 0);
    // The buffer holds the real masked bytes again after the dump.
    EXPECT_EQ(w.sb.bufferStart[0], 0x9E);
    EXPECT_EQ(w.sb.bufferStart[1], 0x03);
    std::string twelveAsterisks;
    for (int i = 0; i < 12; ++i) twelveAsterisks += "2A";
    EXPECT_EQ(dumpAfter(trace, 2526), twelveAsterisks);
}

TEST(SocketBufferMask, LengthZeroIsRefusedAndPaddedMaskLeavesTheTailAlone) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    ScopedBuffer w;
    ASSERT_EQ(initWriteBuffer(&w.sb, net.client, 16), 0);
    writeBytesMasked(&w.sb, "abc", 0);
    EXPECT_EQ(w.sb.bufferLen, 0u);
    EXPECT_EQ(w.sb.maskedList, nullptr);

    writeBytes(&w.sb, "EEEEEEEE", 8);
    ASSERT_EQ(flushBuffer(&w.sb), 0);
    // Same buffer again from its start: the five bytes after the data keep "EEEEE".
    writePaddedBytesMasked(&w.sb, "ab\x01", 3, 8);
    EXPECT_EQ(w.sb.bufferLen, 8u);
    ASSERT_EQ(flushBuffer(&w.sb), 0);
    Bytes expected = Wire().text("EEEEEEEE").u8(0x9E).u8(0x03).u8(0x63).text("EEEEE").bytes();
    EXPECT_EQ(net.receive(expected.size()), expected);
}

TEST(SocketBufferWrite, DeadAfterAFailedSend) {
    TraceCapture trace(1);
    ScopedBuffer w;
    ASSERT_EQ(initWriteBuffer(&w.sb, PLATFORM_INVALID_SOCKET, 64), 0);
    writeInt(&w.sb, 1);
    EXPECT_EQ(flushBuffer(&w.sb), KVL_ERR_LOSTGWCON);
    EXPECT_NE(w.sb.lastError, 0);
    EXPECT_EQ(w.sb.bufferLen, 4u);
    writeInt(&w.sb, 2);
    writeBytes(&w.sb, "abc", 3);
    writeBytesMasked(&w.sb, "pw", 2);
    EXPECT_EQ(w.sb.bufferLen, 4u);
    EXPECT_EQ(flushBuffer(&w.sb), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(trace.linesWithId(2528).size(), 1u);  // the second flush did not try to send
    // A new flow on the same record starts healthy.
    ASSERT_EQ(initWriteBuffer(&w.sb, PLATFORM_INVALID_SOCKET, 64), 0);
    EXPECT_EQ(w.sb.lastError, 0);
}

TEST(SocketBufferRead, PrimitivesDecodeBigEndian) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    net.send(Wire().u8(0xAB).be16(0x1234).be32(0xDEADBEEF).text("hello"));
    ScopedBuffer r;
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, 12), 0);
    EXPECT_EQ(readByte(&r.sb), 0xAB);
    EXPECT_EQ(readShort(&r.sb), 0x1234);
    EXPECT_EQ(readInt(&r.sb), 0xDEADBEEFu);
    char text[5];
    readBytes(&r.sb, text, sizeof text);
    EXPECT_EQ(std::string(text, 5), "hello");
    EXPECT_EQ(sockBufferFlowRemaining(&r.sb), 0u);
    EXPECT_EQ(r.sb.lastError, 0);
}

TEST(SocketBufferRead, ValueSplitAcrossTwoReceivesIsJoined) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    Bytes head = pattern(32998, 3);
    Bytes flow = Wire().raw(head).be32(0xCAFEF00D).fill(998, 0x55).bytes();
    std::thread sender([&] { net.send(flow); });
    ScopedBuffer r;
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, flow.size()), 0);
    Bytes got(head.size());
    readBytes(&r.sb, got.data(), got.size());
    EXPECT_EQ(got, head);
    EXPECT_EQ(r.sb.bufferLen, 2u);  // half of the int is in the buffer, half on the socket
    EXPECT_EQ(readInt(&r.sb), 0xCAFEF00Du);
    sender.join();
}

TEST(SocketBufferRead, LargeBlockGoesStraightToTheCallersMemory) {
    TraceCapture trace(4);
    KVL_setAPITraceDataLength(16);
    Loopback net;
    ASSERT_TRUE(net.ok());
    // After the first int the buffer holds 32996 bytes of the block; the other 37004
    // cannot fit in the buffer and are received into the destination itself.
    Bytes block = pattern(70000, 11);
    Bytes flow = Wire().be32(7).raw(block).be32(8).bytes();
    std::thread sender([&] { net.send(flow); });
    ScopedBuffer r;
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, flow.size()), 0);
    EXPECT_EQ(readInt(&r.sb), 7u);
    Bytes got(block.size());
    readBytes(&r.sb, got.data(), got.size());
    EXPECT_EQ(got, block);
    EXPECT_EQ(readInt(&r.sb), 8u);
    EXPECT_EQ(sockBufferFlowRemaining(&r.sb), 0u);
    EXPECT_EQ(trace.linesWithId(2532).size(), 1u);
    sender.join();
}

TEST(SocketBufferRead, PeerClosingMidFlowKillsTheBuffer) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    net.send(Wire().be32(42).be16(7));
    net.closePeer();
    ScopedBuffer r;
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, 100), 0);
    EXPECT_EQ(fillBuffer(&r.sb), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(readInt(&r.sb), 0u);  // dead: the six bytes that did arrive are not handed out
    EXPECT_NE(r.sb.lastError, 0);
    EXPECT_EQ(sockBufferErrorRc(&r.sb), KVL_ERR_LOSTGWCON);
    char data[50];
    memset(data, 0x11, sizeof data);
    readBytes(&r.sb, data, sizeof data);
    EXPECT_EQ(data[0], 0x11);
    EXPECT_EQ(fillBuffer(&r.sb), KVL_ERR_LOSTGWCON);
}

TEST(SocketBufferRead, ReadPastTheFlowLeavesTheNextFlowOnTheSocket) {
    TraceCapture trace(1);
    Loopback net;
    ASSERT_TRUE(net.ok());
    net.send(Wire().be32(1).be16(2).be32(3).be32(4));
    ScopedBuffer r;
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, 6), 0);  // the first flow: an int and a short
    EXPECT_EQ(readInt(&r.sb), 1u);
    EXPECT_EQ(readInt(&r.sb), 0u);  // only 2 bytes of this flow remain
    EXPECT_EQ(r.sb.lastError, SOCKBUFFER_ERR_FLOW_OVERRUN);
    EXPECT_EQ(sockBufferErrorRc(&r.sb), KVL_ERR_SYSTEM_ERROR);
    EXPECT_EQ(readShort(&r.sb), 0u);  // dead until initialised again
    EXPECT_EQ(trace.linesWithId(2535).size(), 1u);

    ASSERT_EQ(initReadBuffer(&r.sb, net.client, 8), 0);
    uint8_t big[9];
    readBytes(&r.sb, big, sizeof big);  // one byte too many: refused before any recv
    EXPECT_EQ(r.sb.lastError, SOCKBUFFER_ERR_FLOW_OVERRUN);
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, 8), 0);
    EXPECT_EQ(readInt(&r.sb), 3u);
    EXPECT_EQ(readInt(&r.sb), 4u);
}

TEST(SocketBufferRead, SkipConsumesExactlyAcrossRefills) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    Bytes flow = Wire().fill(40000, 0x33).be32(99).bytes();
    std::thread sender([&] { net.send(flow); });
    ScopedBuffer r;
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, flow.size()), 0);
    skipBytes(&r.sb, 40000);
    EXPECT_EQ(readInt(&r.sb), 99u);
    EXPECT_EQ(r.sb.lastError, 0);
    skipBytes(&r.sb, 1);
    EXPECT_EQ(r.sb.lastError, SOCKBUFFER_ERR_FLOW_OVERRUN);
    sender.join();
}

TEST(SocketBufferWait, ReadableTimeoutAndFailure) {
    TraceCapture trace(1);
    Loopback net;
    ASSERT_TRUE(net.ok());
    ScopedBuffer r;
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, 4), 0);

    EXPECT_EQ(waitForResponse(&r.sb, 1), KVL_ERR_CONNECTTIMEOUT);
    EXPECT_EQ(trace.linesWithId(2504).size(), 1u);
    EXPECT_TRUE(trace.contains("Timed out waiting for handshake response"));

    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        net.send(Wire().be32(5));
    });
    EXPECT_EQ(waitForResponse(&r.sb, 0), 0);  // no limit: returns once the data is there
    late.join();
    EXPECT_EQ(readInt(&r.sb), 5u);

    ScopedBuffer bad;
    ASSERT_EQ(initReadBuffer(&bad.sb, PLATFORM_INVALID_SOCKET, 4), 0);
    EXPECT_EQ(waitForResponse(&bad.sb, 1), KVL_ERR_LOSTGWCON);
    EXPECT_NE(bad.sb.lastError, 0);
    EXPECT_EQ(readInt(&bad.sb), 0u);
    EXPECT_EQ(fillBuffer(&bad.sb), KVL_ERR_LOSTGWCON);
    EXPECT_EQ(trace.linesWithId(2523).size(), 1u);
}

TEST(SocketBufferRead, RemainderOfAFlowIsDroppedEvenAfterARefusedRead) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    Bytes flow = Wire().be32(1).fill(39996, 0x44).be32(0x600D).bytes();  // 40000 bytes, then the next flow
    std::thread sender([&] { net.send(flow); });
    ScopedBuffer r;
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, 40000), 0);
    EXPECT_EQ(readInt(&r.sb), 1u);
    Bytes tooMuch(40000);
    readBytes(&r.sb, tooMuch.data(), tooMuch.size());
    EXPECT_EQ(r.sb.lastError, SOCKBUFFER_ERR_FLOW_OVERRUN);
    EXPECT_GT(r.sb.dataRemaining, 0u);  // part of the flow is still on the socket
    skipFlowRemainder(&r.sb);
    EXPECT_EQ(sockBufferFlowRemaining(&r.sb), 0u);
    EXPECT_EQ(r.sb.lastError, SOCKBUFFER_ERR_FLOW_OVERRUN);  // the flow stays failed
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, 4), 0);
    EXPECT_EQ(readInt(&r.sb), 0x600Du);
    sender.join();
}

TEST(SocketBufferRead, RemainderIsLeftAloneAfterTheSocketFailed) {
    Loopback net;
    ASSERT_TRUE(net.ok());
    net.send(Wire().be32(1));
    net.closePeer();
    ScopedBuffer r;
    ASSERT_EQ(initReadBuffer(&r.sb, net.client, 100), 0);
    EXPECT_EQ(fillBuffer(&r.sb), KVL_ERR_LOSTGWCON);
    skipFlowRemainder(&r.sb);  // must not wait for bytes that will never come
    EXPECT_EQ(sockBufferErrorRc(&r.sb), KVL_ERR_LOSTGWCON);
}
