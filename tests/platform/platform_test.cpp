// The platform layer: socket waits, the Linux code-set table.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <thread>

#include "platform/platform.h"

#ifndef _WIN32
#include <sys/resource.h>
#include <unistd.h>
#endif

namespace {
// A connected pair over loopback.
struct Pair {
    platformSocket listener = PLATFORM_INVALID_SOCKET;
    platformSocket client = PLATFORM_INVALID_SOCKET;
    platformSocket server = PLATFORM_INVALID_SOCKET;
    Pair() {
        uint16_t port = 0;
        if (platformListen("127.0.0.1", 0, &listener, &port) != 0) return;
        platformAddress a;
        if (platformResolve("127.0.0.1", std::to_string(port).c_str(), &a) != 0) return;
        client = platformSocketCreate(a.family, a.socktype, a.protocol);
        if (platformConnect(client, &a) != 0) return;
        server = platformAccept(listener);
    }
    ~Pair() {
        for (platformSocket s : {listener, client, server})
            if (s != PLATFORM_INVALID_SOCKET) platformCloseSocket(s);
    }
};
}  // namespace

TEST(PlatformSockets, WaitReadableTimesOutThenSeesDataAndHangUp) {
    Pair p;
    ASSERT_NE(p.server, PLATFORM_INVALID_SOCKET);
    EXPECT_EQ(platformWaitReadable(p.server, 1), 0) << "nothing sent yet";
    ASSERT_EQ(platformSend(p.client, "x", 1), 1);
    EXPECT_GT(platformWaitReadable(p.server, 0), 0);
    char c = 0;
    EXPECT_EQ(platformRecv(p.server, &c, 1), 1);
    ASSERT_EQ(platformShutdownSocket(p.client), 0);
    EXPECT_GT(platformWaitReadable(p.server, 5), 0) << "a hang-up counts as readable";
    EXPECT_EQ(platformRecv(p.server, &c, 1), 0);
}

// A connection's reader blocks without a time limit; closing the connection
// wakes it by shutting the socket down, on every platform: a read or a wait
// already blocked, and a read that gets there just after the shutdown.
TEST(PlatformSockets, ShuttingASocketDownEndsABlockedReadOrWait) {
    for (bool viaWait : {false, true}) {
        for (bool shutFirst : {false, true}) {
            if (viaWait && shutFirst) continue;  // not promised on Windows: readers block in recv
            Pair p;
            ASSERT_NE(p.server, PLATFORM_INVALID_SOCKET);
            if (shutFirst) {
                ASSERT_EQ(platformShutdownSocket(p.server), 0);
            }
            std::promise<long long> ended;
            auto result = ended.get_future();
            std::thread reader([&] {
                char c = 0;
                if (viaWait && platformWaitReadable(p.server, 0) < 0) {
                    ended.set_value(-2);
                    return;
                }
                ended.set_value(platformRecv(p.server, &c, 1));
            });
            if (!shutFirst) {
                std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let it block
                ASSERT_EQ(platformShutdownSocket(p.server), 0);
            }
            bool woke = result.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
            if (!woke) platformShutdownSocket(p.client);  // the peer's end frees the reader, so the test ends
            reader.join();
            EXPECT_TRUE(woke) << (viaWait ? "a wait" : "a read") << (shutFirst ? " after" : " during")
                              << " the shutdown did not end";
            if (woke) {
                EXPECT_LE(result.get(), 0) << "no data was sent";
            }
        }
    }
}

TEST(PlatformSockets, WaitOnASocketThatIsNotOpenIsAnError) {
    EXPECT_LT(platformWaitReadable(PLATFORM_INVALID_SOCKET, 1), 0);
    EXPECT_NE(platformSocketError(), 0);
    int err = 0;
    EXPECT_EQ(platformWaitConnect(PLATFORM_INVALID_SOCKET, 1, &err), -1);
}

TEST(PlatformSockets, ResolveFailsCleanlyForAnUnknownHost) {
    platformAddress a;
    int rc = platformResolve("no-such-host.invalid", "80", &a);
    EXPECT_NE(rc, 0);
    char text[256];
    platformResolverErrorText(rc, text, sizeof text);
    EXPECT_GT(strlen(text), 0u);
}

#ifndef _WIN32
// select() cannot watch descriptor numbers of 1024 and above; a busy process
// gives its sockets such numbers, so the waits must not depend on select.
TEST(PlatformSockets, WaitsWorkOnDescriptorsAbove1024) {
    rlimit lim;
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &lim), 0);
    if (lim.rlim_max != RLIM_INFINITY && lim.rlim_max < 1400) GTEST_SKIP() << "descriptor limit too low";
    rlimit raised = lim;
    if (raised.rlim_cur == RLIM_INFINITY || raised.rlim_cur < 1400) raised.rlim_cur = 1400;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &raised), 0);
    Pair p;
    ASSERT_NE(p.server, PLATFORM_INVALID_SOCKET);
    int high = dup2(static_cast<int>(p.server), 1300);
    ASSERT_EQ(high, 1300);
    platformSocket highSock = static_cast<platformSocket>(high);
    EXPECT_EQ(platformWaitReadable(highSock, 1), 0);
    ASSERT_EQ(platformSend(p.client, "y", 1), 1);
    EXPECT_GT(platformWaitReadable(highSock, 5), 0);
    platformCloseSocket(highSock);
    setrlimit(RLIMIT_NOFILE, &lim);
}

TEST(PlatformCodePage, LocaleCodeSetsMapToCodePages) {
    struct Case {
        const char* codeset;
        int codePage;
    };
    const Case cases[] = {{"UTF-8", 1208},      {"utf8", 1208},    {"ISO-8859-1", 819}, {"ISO8859-1", 819},
                          {"ISO-8859-15", 923}, {"CP1252", 1252},  {"cp1250", 1250},    {"EUC-JP", 954},
                          {"ANSI_X3.4-1968", 367}, {"", 1252},     {"KLINGON", 1252}};
    for (const auto& c : cases) EXPECT_EQ(platformCodePageForCodeset(c.codeset), c.codePage) << c.codeset;
}
#endif
