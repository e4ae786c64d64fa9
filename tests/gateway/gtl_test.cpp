// Gateway tokens without a connection: the GTL, API-call counting, close, delete and the dump.
#include "gateway_test_util.h"

using namespace gwtest;

namespace {

// A token as creation leaves it before the connect: allocated and chained.
kvlGatewayToken* chainedToken(int32_t port = 1234, const char* applid = "APPL1", const char* qualifier = "QUAL") {
    kvlGatewayToken* token = nullptr;
    EXPECT_EQ(0, allocateGatewayToken(&token, port, 5, applid, qualifier));
    EXPECT_EQ(0, chainGatewayToken(token));
    token->opening = 0;
    return token;
}

int closeAndDelete(kvlGatewayToken** token) {
    int rc = clapiCloseGatewayToken(*token, true);
    return rc != 0 ? rc : clapiDeleteGatewayToken(token, -1, true);
}

int find(kvlGatewayToken* token, kvlGatewayToken** parent = nullptr) {
    clapiRequestLock(&clapiGtlLock);
    int rc = findGatewayToken(token, parent);
    clapiReleaseLock(&clapiGtlLock);
    return rc;
}

bool eventReleased(clapiEvent* event) {
    uint32_t expired = 0;
    EXPECT_EQ(0, clapiTimedWaitEvent(event, 0, &expired));
    return expired == 0;
}

class TokenListTest : public ::testing::Test {
protected:
    void TearDown() override {
        EXPECT_EQ(nullptr, gtlHead()) << "a test left tokens on the list";
        clapiDeleteGatewayTokens();
    }
};

TEST_F(TokenListTest, TokensAreAppendedFoundAndUnchainedFromEitherEnd) {
    kvlGatewayToken stranger{};
    EXPECT_EQ(FIND_TOKEN_NULL, find(nullptr));
    EXPECT_EQ(FIND_TOKEN_NOT_FOUND, find(&stranger));
    EXPECT_EQ(KVL_ERR_NULLGWTOKPTR, chainGatewayToken(nullptr));
    kvlGatewayToken* none = nullptr;
    EXPECT_EQ(KVL_ERR_NULLGWTOK, clapiDeleteGatewayToken(&none, 0, true));
    EXPECT_EQ(KVL_ERR_NULLGWTOKPTR, clapiDeleteGatewayToken(nullptr, 0, true));

    kvlGatewayToken* first = chainedToken();
    EXPECT_EQ(first, gtlHead());
    EXPECT_EQ(first, gtlTail());
    kvlGatewayToken* second = chainedToken();
    kvlGatewayToken* third = chainedToken();
    EXPECT_EQ(first, gtlHead());
    EXPECT_EQ(third, gtlTail());
    EXPECT_EQ(second, first->next);
    kvlGatewayToken* parent = &stranger;
    EXPECT_EQ(FIND_TOKEN_FOUND, find(first, &parent));
    EXPECT_EQ(nullptr, parent);
    EXPECT_EQ(FIND_TOKEN_FOUND, find(third, &parent));
    EXPECT_EQ(second, parent);
    EXPECT_EQ(FIND_TOKEN_NOT_FOUND, find(&stranger));

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

// With the debug trace off a token is proven listed by its hash entry; with it
// on, by the walk that numbers the entries. Both must agree on every token as
// the list changes at its head, middle and tail.
TEST_F(TokenListTest, TheQuickCheckAndTheWalkAgreeAsTheListChanges) {
    std::vector<kvlGatewayToken*> tokens;
    for (int i = 0; i < 6; ++i) tokens.push_back(chainedToken(1000 + i));
    std::vector<kvlGatewayToken*> gone;
    auto agree = [&](const char* when) {
        for (auto* t : tokens) {
            EXPECT_EQ(FIND_TOKEN_FOUND, find(t)) << when;
            EXPECT_EQ(0, clapiRegisterRequest(t)) << when;
            EXPECT_EQ(0, clapiUnregisterRequest(t)) << when;
        }
        for (auto* t : gone) EXPECT_EQ(KVL_ERR_BADGWTOK, clapiRegisterRequest(t)) << when;
        TraceCapture trace(4);
        for (size_t i = 0; i < tokens.size(); ++i) {
            EXPECT_EQ(FIND_TOKEN_FOUND, find(tokens[i])) << when;
            auto lines = trace.linesWithId(2046);
            ASSERT_FALSE(lines.empty());
            // The entry number is the parent's: 0 for the head and for the second token.
            std::string expected = "Entry(" + std::to_string(i == 0 ? 0 : i - 1) + ")";
            EXPECT_NE(std::string::npos, lines.back().find(expected)) << when << ": " << lines.back();
        }
        for (auto* t : gone) EXPECT_EQ(FIND_TOKEN_NOT_FOUND, find(t)) << when;
    };
    agree("all listed");
    for (size_t index : {2u, 0u, 3u}) {  // a middle token, the head, the tail
        kvlGatewayToken* t = tokens[index];
        tokens.erase(tokens.begin() + static_cast<long>(index));
        gone.push_back(t);
        ASSERT_EQ(0, closeAndDelete(&t));
        agree("after a delete");
    }
    tokens.push_back(chainedToken(2000));
    std::erase(gone, tokens.back());  // the allocator may hand a freed address out again
    agree("after a new token");
    for (auto* t : tokens) ASSERT_EQ(0, closeAndDelete(&t));
}

// Only listed tokens count calls; the last unregister releases requestsEnded
// unless asynchronous requests are still outstanding.
TEST_F(TokenListTest, RegisteredCallsAreCountedAndTheLastOneEndsTheRequests) {
    kvlGatewayToken stranger{};
    EXPECT_EQ(KVL_ERR_BADGWTOK, clapiRegisterRequest(&stranger));
    EXPECT_EQ(KVL_ERR_BADGWTOK, clapiRegisterRequest(nullptr));
    EXPECT_EQ(0, stranger.apiCallCount);

    kvlGatewayToken* token = chainedToken();
    clapiSetEvent(&token->requestsEnded);
    ASSERT_EQ(0, clapiRegisterRequest(token));
    token->asyncRequestCount = 1;
    EXPECT_EQ(0, clapiUnregisterRequest(token));
    EXPECT_FALSE(eventReleased(&token->requestsEnded));

    ASSERT_EQ(0, clapiRegisterRequest(token));
    ASSERT_EQ(0, clapiRegisterRequest(token));
    EXPECT_EQ(2, token->apiCallCount);
    token->asyncRequestCount = 0;
    EXPECT_EQ(0, clapiUnregisterRequest(token));
    EXPECT_FALSE(eventReleased(&token->requestsEnded)) << "one call is still inside";
    EXPECT_EQ(0, clapiUnregisterRequest(token));
    EXPECT_EQ(0, token->apiCallCount);
    EXPECT_TRUE(eventReleased(&token->requestsEnded));

    kvlGatewayToken* stale = token;
    EXPECT_EQ(0, closeAndDelete(&token));
    EXPECT_EQ(KVL_ERR_BADGWTOK, clapiRegisterRequest(stale));
    EXPECT_EQ(KVL_ERR_BADGWTOK, clapiDeleteGatewayToken(&stale, 0, true));
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

    EXPECT_TRUE(waitUntil([&] { return traced(trace, 2075, "Waiting for 1 API calls to complete"); }));
    EXPECT_TRUE(eventReleased(&watched->asyncReplyEvent));
    EXPECT_EQ(FIND_TOKEN_FOUND, find(watched));
    EXPECT_EQ(1, deleteRc.load());

    EXPECT_EQ(0, clapiUnregisterRequest(watched));
    closer.join();
    EXPECT_EQ(0, deleteRc.load());
    EXPECT_EQ(FIND_TOKEN_NOT_FOUND, find(watched));
}

TEST_F(TokenListTest, CloseAllDeletesEveryToken) {
    EXPECT_EQ(0, clapiDeleteGatewayTokens());
    for (int i = 0; i < 5; ++i) chainedToken(1000 + i);
    EXPECT_EQ(0, clapiDeleteGatewayTokens());
    EXPECT_EQ(nullptr, gtlHead());
}

// Close-all also walks tokens whose close is running: it counts them, their close
// gives -140, and a token another delete is working on is left to that delete.
TEST_F(TokenListTest, CloseAllWalksTokensWhoseCloseIsRunning) {
    kvlGatewayToken* open = chainedToken(1001);
    kvlGatewayToken* closed = chainedToken(1002);  // closed, its delete not yet begun
    kvlGatewayToken* beingDeleted = chainedToken(1003);
    ASSERT_EQ(0, clapiCloseGatewayToken(closed, true));
    ASSERT_EQ(0, clapiCloseGatewayToken(beingDeleted, true));
    clapiRequestLock(&clapiGtlLock);
    beingDeleted->deleting = 1;  // as another thread's delete leaves it during its quiesce
    clapiReleaseLock(&clapiGtlLock);

    TraceCapture trace(3);
    EXPECT_EQ(0, clapiDeleteGatewayTokens());
    EXPECT_EQ(3u, trace.linesWithId(2035).size());
    EXPECT_TRUE(traced(trace, 2037, "Entries deleted=3, rc=0"));
    size_t refusedCloses = 0;
    for (const auto& line : trace.linesWithId(2019)) refusedCloses += line.find("rc=-140") != std::string::npos;
    EXPECT_EQ(2u, refusedCloses);
    EXPECT_EQ(FIND_TOKEN_NOT_FOUND, find(open));
    EXPECT_EQ(FIND_TOKEN_NOT_FOUND, find(closed));
    ASSERT_EQ(FIND_TOKEN_FOUND, find(beingDeleted)) << "the second delete freed it";
    EXPECT_EQ(1, beingDeleted->deleting);

    clapiRequestLock(&clapiGtlLock);
    beingDeleted->deleting = 0;
    clapiReleaseLock(&clapiGtlLock);
    EXPECT_EQ(0, clapiDeleteGatewayToken(&beingDeleted, 0, true));
}

TEST_F(TokenListTest, TheDumpListsEveryTokenWhateverTheLevel) {
    {
        TraceCapture trace(0);
        clapiDumpGatewayTokens();
        std::string dashes(80, '-');
        EXPECT_NE(std::string::npos, trace.text().find("Gateway Token List dump\n" + dashes +
                                                       "\nThe Gateway Token List is EMPTY\n" + dashes + "\n"))
            << trace.text();
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
        EXPECT_TRUE(traced(trace, 2039, "List length=2"));
    }
    char buffer[GWTOK_FORMAT_SIZE];
    EXPECT_EQ(KVL_ERR_NULLPARM, formatGatewayToken(a, nullptr));
    EXPECT_EQ(0, formatGatewayToken(nullptr, buffer));
    EXPECT_STREQ("GatwayToken(NULL)", buffer);
    EXPECT_EQ(0, closeAndDelete(&a));
    EXPECT_EQ(0, closeAndDelete(&b));
}

}  // namespace
