// Gateway tokens without a connection: the GTL, API-call counting, close, delete and the dump.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <string>
#include <thread>

#include "gateway/clapi_gwytok.h"
#include "impl/clapi_impl.h"
#include "kvlclient.h"
#include "support/trace_capture.h"

using kvltest::TraceCapture;

namespace {

// A token as creation leaves it before the connect: allocated and chained.
kvlGatewayToken* chainedToken(int32_t port = 1234, const char* applid = "APPL1", const char* qualifier = "QUAL") {
    kvlGatewayToken* token = nullptr;
    EXPECT_EQ(0, allocateGatewayToken(&token, port, 5, applid, qualifier));
    EXPECT_EQ(0, chainGatewayToken(token));
    token->opening = 0;
    return token;
}

int closeAndDelete(kvlGatewayToken** token, int32_t closeTimeout = -1) {
    int rc = clapiCloseGatewayToken(*token, true);
    return rc != 0 ? rc : clapiDeleteGatewayToken(token, closeTimeout, true);
}

bool onList(kvlGatewayToken* token) {
    clapiRequestLock(&clapiGtlLock);
    bool found = findGatewayToken(token, nullptr) == FIND_TOKEN_FOUND;
    clapiReleaseLock(&clapiGtlLock);
    return found;
}

bool eventReleased(clapiEvent* event) {
    uint32_t expired = 0;
    EXPECT_EQ(0, clapiTimedWaitEvent(event, 0, &expired));
    return expired == 0;
}

bool waitUntil(const std::function<bool()>& condition) {
    for (int i = 0; i < 1000; ++i) {
        if (condition()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

class TokenListTest : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(nullptr, gtlHead()) << "a test left tokens on the list";
        clapiDeleteGatewayTokens();
    }
};

TEST_F(TokenListTest, TokensAreAppendedAndUnchainedFromEitherEnd) {
    kvlGatewayToken* first = chainedToken();
    EXPECT_EQ(first, gtlHead());
    EXPECT_EQ(first, gtlTail());
    EXPECT_EQ(0, memcmp(first->eyecatcher, "KVLGWTOK", 8));
    EXPECT_EQ(PLATFORM_INVALID_SOCKET, first->socket.load());
    EXPECT_EQ(1, first->requestTable.first[0].number);
    EXPECT_EQ(16, first->requestTable.first[15].number);

    kvlGatewayToken* second = chainedToken();
    kvlGatewayToken* third = chainedToken();
    EXPECT_EQ(first, gtlHead());
    EXPECT_EQ(third, gtlTail());
    EXPECT_EQ(second, first->next);

    EXPECT_EQ(0, closeAndDelete(&third));
    EXPECT_EQ(nullptr, third);
    EXPECT_EQ(second, gtlTail());
    EXPECT_EQ(nullptr, second->next);
    EXPECT_EQ(0, closeAndDelete(&first));
    EXPECT_EQ(second, gtlHead());
    EXPECT_EQ(0, closeAndDelete(&second));
    EXPECT_EQ(nullptr, gtlHead());

    kvlGatewayToken* again = chainedToken();
    EXPECT_EQ(again, gtlHead());
    EXPECT_EQ(again, gtlTail());
    EXPECT_EQ(0, closeAndDelete(&again));
}

TEST_F(TokenListTest, FindReportsNullMissingAndFoundWithItsParent) {
    kvlGatewayToken stranger{};
    clapiRequestLock(&clapiGtlLock);
    EXPECT_EQ(FIND_TOKEN_NULL, findGatewayToken(nullptr, nullptr));
    EXPECT_EQ(FIND_TOKEN_NOT_FOUND, findGatewayToken(&stranger, nullptr));
    clapiReleaseLock(&clapiGtlLock);

    kvlGatewayToken* a = chainedToken();
    kvlGatewayToken* b = chainedToken();
    kvlGatewayToken* parent = &stranger;
    clapiRequestLock(&clapiGtlLock);
    EXPECT_EQ(FIND_TOKEN_FOUND, findGatewayToken(a, &parent));
    EXPECT_EQ(nullptr, parent);
    EXPECT_EQ(FIND_TOKEN_FOUND, findGatewayToken(b, &parent));
    EXPECT_EQ(a, parent);
    EXPECT_EQ(FIND_TOKEN_NOT_FOUND, findGatewayToken(&stranger, nullptr));
    clapiReleaseLock(&clapiGtlLock);
    EXPECT_EQ(KVL_ERR_NULLGWTOKPTR, chainGatewayToken(nullptr));
    EXPECT_EQ(0, closeAndDelete(&a));
    EXPECT_EQ(0, closeAndDelete(&b));
}

TEST_F(TokenListTest, OnlyTokensOnTheListCanBeRegistered) {
    kvlGatewayToken* token = chainedToken();
    EXPECT_EQ(0, clapiRegisterRequest(token));
    EXPECT_EQ(0, clapiRegisterRequest(token));
    EXPECT_EQ(2, token->apiCallCount);
    EXPECT_EQ(0, clapiUnregisterRequest(token));
    EXPECT_EQ(0, clapiUnregisterRequest(token));
    EXPECT_EQ(0, token->apiCallCount);

    kvlGatewayToken stranger{};
    EXPECT_EQ(KVL_ERR_BADGWTOK, clapiRegisterRequest(&stranger));
    EXPECT_EQ(KVL_ERR_BADGWTOK, clapiRegisterRequest(nullptr));
    EXPECT_EQ(0, stranger.apiCallCount);

    kvlGatewayToken* stale = token;
    EXPECT_EQ(0, closeAndDelete(&token));
    EXPECT_EQ(KVL_ERR_BADGWTOK, clapiRegisterRequest(stale));
}

TEST_F(TokenListTest, TheLastUnregisterReleasesRequestsEndedOnlyWithoutAsyncRequests) {
    kvlGatewayToken* token = chainedToken();
    ASSERT_EQ(0, clapiRegisterRequest(token));
    clapiSetEvent(&token->requestsEnded);
    token->asyncRequestCount = 1;
    EXPECT_EQ(0, clapiUnregisterRequest(token));
    EXPECT_FALSE(eventReleased(&token->requestsEnded));

    ASSERT_EQ(0, clapiRegisterRequest(token));
    ASSERT_EQ(0, clapiRegisterRequest(token));
    token->asyncRequestCount = 0;
    EXPECT_EQ(0, clapiUnregisterRequest(token));
    EXPECT_FALSE(eventReleased(&token->requestsEnded)) << "one call is still inside";
    EXPECT_EQ(0, clapiUnregisterRequest(token));
    EXPECT_TRUE(eventReleased(&token->requestsEnded));
    EXPECT_EQ(0, closeAndDelete(&token));
}

TEST_F(TokenListTest, ASecondCloseIsRefusedAndADeletedTokenIsUnknown) {
    kvlGatewayToken* token = chainedToken();
    kvlGatewayToken* copy = token;
    EXPECT_EQ(0, clapiCloseGatewayToken(token, true));
    EXPECT_EQ(1, token->closing.load());
    EXPECT_EQ(KVL_ERR_GWTOK_CLOSED, clapiCloseGatewayToken(token, true));
    EXPECT_EQ(0, clapiDeleteGatewayToken(&token, 0, true));
    EXPECT_EQ(nullptr, token);
    EXPECT_EQ(KVL_ERR_BADGWTOK, clapiCloseGatewayToken(copy, true));
    EXPECT_EQ(KVL_ERR_BADGWTOK, clapiDeleteGatewayToken(&copy, 0, true));
    EXPECT_EQ(KVL_ERR_NULLGWTOK, clapiDeleteGatewayToken(&token, 0, true));
    EXPECT_EQ(KVL_ERR_NULLGWTOKPTR, clapiDeleteGatewayToken(nullptr, 0, true));
}

// A close waits for calls still inside the library (whatever the time-out), and
// releases get-reply waiters at once when no asynchronous request is outstanding.
TEST_F(TokenListTest, DeleteWaitsForApiCallsAndReleasesGetReplyWaiters) {
    TraceCapture trace(2);
    kvlGatewayToken* token = chainedToken();
    kvlGatewayToken* watched = token;
    ASSERT_EQ(0, clapiRegisterRequest(token));
    ASSERT_EQ(0, clapiCloseGatewayToken(token, true));
    std::atomic<int> deleteRc{1};
    std::thread closer([&] { deleteRc = clapiDeleteGatewayToken(&token, 0, true); });

    EXPECT_TRUE(waitUntil([&] { return !trace.linesWithId(2075).empty(); }));
    EXPECT_TRUE(eventReleased(&watched->asyncReplyEvent));
    EXPECT_TRUE(onList(watched));
    EXPECT_EQ(1, deleteRc.load());

    EXPECT_EQ(0, clapiUnregisterRequest(watched));
    closer.join();
    EXPECT_EQ(0, deleteRc.load());
    EXPECT_FALSE(onList(watched));
    EXPECT_NE(std::string::npos, trace.linesWithId(2075)[0].find("Waiting for 1 API calls to complete"));
}

TEST_F(TokenListTest, CloseAllDeletesEveryToken) {
    EXPECT_EQ(0, clapiDeleteGatewayTokens());
    for (int i = 0; i < 5; ++i) chainedToken(1000 + i);
    EXPECT_EQ(0, clapiDeleteGatewayTokens());
    EXPECT_EQ(nullptr, gtlHead());
}

TEST_F(TokenListTest, TheDumpListsEveryTokenWhateverTheLevel) {
    {
        TraceCapture trace(0);
        clapiDumpGatewayTokens();
        std::string text = trace.text();
        EXPECT_NE(std::string::npos, text.find("Gateway Token List dump\n" + std::string(80, '-') + "\n"
                                               "The Gateway Token List is EMPTY\n" + std::string(80, '-') + "\n"))
            << text;
    }
    kvlGatewayToken* a = chainedToken(1414, "APPL1", "QUAL");
    kvlGatewayToken* b = chainedToken(2006, "", "");
    {
        TraceCapture trace(3);
        clapiDumpGatewayTokens();
        std::string text = trace.text();
        char expected[GWTOK_FORMAT_SIZE + 64];
        snprintf(expected, sizeof expected,
                 "Gateway Token List entry -0001- : GatwayToken(%p) eyecatcher(KVLGWTOK) port(1414) connStatus(0) "
                 "socket(-1) applid(APPL1) applidQual(QUAL) nextGwyTokPtr(%p)\n",
                 static_cast<void*>(a), static_cast<void*>(b));
        EXPECT_NE(std::string::npos, text.find(expected)) << text;
        EXPECT_NE(std::string::npos, text.find("Gateway Token List entry -0002- : GatwayToken(")) << text;
        EXPECT_NE(std::string::npos, text.find("Total number of Gateway Token List entries=2\n")) << text;
        auto exits = trace.linesWithId(2039);
        ASSERT_EQ(1u, exits.size());
        EXPECT_NE(std::string::npos, exits[0].find("List length=2"));
    }
    char buffer[GWTOK_FORMAT_SIZE];
    EXPECT_EQ(KVL_ERR_NULLPARM, formatGatewayToken(a, nullptr));
    EXPECT_EQ(0, formatGatewayToken(nullptr, buffer));
    EXPECT_STREQ("GatwayToken(NULL)", buffer);
    EXPECT_EQ(0, closeAndDelete(&a));
    EXPECT_EQ(0, closeAndDelete(&b));
}

}  // namespace
