// The end of a connection at the worst moment: each case holds one thread at a
// test point inside the gap that used to lose a request, lets the connection
// end there, and checks that every caller returns and nothing stays behind.
#include <gtest/gtest.h>

#include <chrono>
#include <array>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "gateway/gateway_test_util.h"
#include "kvl_eci.h"
#include "kvl_esi.h"
#include "kvlclient.h"
#include "support/test_points.h"

namespace {
using kvltest::TestPointGate;
namespace wire = kvlemu::wire;

// A library call on a thread of its own; one that has not ended by the limit is
// abandoned (its thread owns what it uses), so a lost wake-up fails the test
// instead of hanging it.
class BoundedCall {
public:
    explicit BoundedCall(std::function<int()> call) {
        auto promise = std::make_shared<std::promise<int>>();
        result_ = promise->get_future();
        thread_ = std::thread([promise, call = std::move(call)] { promise->set_value(call()); });
    }
    ~BoundedCall() {
        if (thread_.joinable()) {
            if (result_.wait_for(std::chrono::seconds(0)) == std::future_status::ready)
                thread_.join();
            else
                thread_.detach();
        }
    }
    std::optional<int> finish(int limitMs = 10000) {
        if (result_.wait_for(std::chrono::milliseconds(limitMs)) != std::future_status::ready) return std::nullopt;
        if (thread_.joinable()) thread_.join();
        return result_.get();
    }

private:
    std::future<int> result_;
    std::thread thread_;
};

class ConnectionEndRace : public ::testing::Test {
protected:
    void SetUp() override {
        clapiCloseAnswerSeconds = 1;  // this Gateway never answers a close request
        if (!kvltest::testPointsAvailable()) GTEST_SKIP() << "this build has no test points";
        gateway_.acceptAndShakeHands();
        ASSERT_EQ(KVL_openRemoteGatewayConnection("127.0.0.1", gateway_.port(), &token_, 10), KVL_OK);
        ASSERT_TRUE(gateway_.waitReady());
    }
    void TearDown() override {
        struct Restore {
            ~Restore() { clapiCloseAnswerSeconds = 30; }
        } restore;
        if (token_) {
            auto close = BoundedCall([t = token_]() mutable { return KVL_closeGatewayConnection(&t); });
            EXPECT_TRUE(close.finish().has_value()) << "the close waited for ever";
        }
    }
    gwtest::ScriptedGateway gateway_;
    gwTok token_ = nullptr;
};

struct RequestKind {
    const char* name;
    const char* point;  // where the request has its slot and is about to be marked sent
    std::function<int(gwTok)> call;
};

const RequestKind kKinds[] = {
    {"verify password", "esi.beforeMarkSent",
     [](gwTok t) {
         esiDetails details{};
         return KVL_ESI_verifyPassword(t, "USER1", "SECRET1", nullptr, &details);
     }},
    {"list systems", "list.beforeMarkSent",
     [](gwTok t) {
         kvlSystemInfo list[4]{};
         unsigned short count = 4;
         return KVL_listSystems(t, &count, list);
     }},
};

class RequestRace : public ConnectionEndRace, public ::testing::WithParamInterface<size_t> {};

// Finding: ESI and list requests were marked sent without a second look at the
// connection. Here the receiver ends the connection after the request took its
// slot and before it is marked sent; the receiver is then held before it closes
// the socket, so a send would still succeed and its caller would wait for ever.
TEST_P(RequestRace, RequestTakingItsSlotAsTheConnectionEndsIsRefused) {
    const RequestKind& kind = kKinds[GetParam()];
    SCOPED_TRACE(kind.name);
    TestPointGate beforeSent(kind.point);
    TestPointGate socketStillOpen("receiver.afterEnd");
    BoundedCall call([t = token_, &kind] { return kind.call(t); });
    ASSERT_TRUE(beforeSent.waitArrived());
    gateway_.closePeer();
    ASSERT_TRUE(socketStillOpen.waitArrived());
    beforeSent.release();
    auto rc = call.finish(5000);
    socketStillOpen.release();
    ASSERT_TRUE(rc.has_value()) << "the request was sent after the connection ended and waits for ever";
    EXPECT_EQ(*rc, KVL_ERR_LOSTGWCON);
}

INSTANTIATE_TEST_SUITE_P(EveryKind, RequestRace, ::testing::Values(size_t{0}, size_t{1}));

// Finding: the close flow marked the connection closed before the requests
// waiting on it were queued; a get-reply in between returned at once and left
// the reply queued for ever (async count stuck at 1, the next close hung).
TEST_F(ConnectionEndRace, GetReplyDuringACloseFlowCollectsTheFailedRequest) {
    uint8_t area[16] = {};
    EciParms call{};
    call.eci_call_type = ECI_ASYNC;
    call.eci_version = 6;
    memcpy(call.eci_program, "SLOWPROG", 8);
    call.eci_commarea = area;
    call.eci_commarea_length = sizeof area;
    ASSERT_EQ(KVL_ECI_Execute(token_, &call), ECI_NO_ERROR);
    wire::Header request;
    ASSERT_TRUE(gateway_.readHeader(request));

    TestPointGate beforeEnd("receiver.beforeEnd");
    ASSERT_TRUE(gateway_.send(gwtest::gatewayFlow(wire::kFlowClose, wire::kCloseMessageId, "BASE", {})));
    ASSERT_TRUE(beforeEnd.waitArrived());

    auto get = std::make_shared<EciParms>();
    auto out = std::make_shared<std::array<uint8_t, 16>>();
    get->eci_call_type = ECI_GET_REPLY_WAIT;
    get->eci_version = 6;
    get->eci_commarea = out->data();
    get->eci_commarea_length = 16;
    BoundedCall retrieval([t = token_, get, out] { return KVL_ECI_Execute(t, get.get()); });
    // The retrieval may not give up while the close flow's requests are still to be queued.
    EXPECT_FALSE(retrieval.finish(300).has_value()) << "get-reply returned before the request was failed";
    beforeEnd.release();
    auto rc = retrieval.finish();
    ASSERT_TRUE(rc.has_value());
    EXPECT_EQ(*rc, KVL_ERR_GATEWAY_CLOSED);
    EXPECT_EQ(get->eci_msg_qual, call.eci_msg_qual);  // it is the request's own failure
    clapiRequestLock(&token_->tableLock);
    EXPECT_EQ(token_->asyncRequestCount, 0);
    EXPECT_EQ(token_->asyncQueueHead, nullptr);
    clapiReleaseLock(&token_->tableLock);
}

// Finding: a call could register on a token between the purge's last wait for
// API calls and the free (the token stays on the list until then); the purge
// freed the token under the call, which then read freed memory. Here the
// purge is held just before its free while a list request registers.
TEST_F(ConnectionEndRace, CallRegisteringAsThePurgeFreesIsWaitedFor) {
    TestPointGate beforeFree("delete.beforeFree");
    BoundedCall purge([t = token_]() mutable { return KVL_purgeGatewayConnection(&t, 0); });
    ASSERT_TRUE(beforeFree.waitArrived());

    TestPointGate registered("register.registered");
    BoundedCall list([t = token_] {
        kvlSystemInfo systems[2]{};
        unsigned short count = 2;
        return KVL_listSystems(t, &count, systems);
    });
    ASSERT_TRUE(registered.waitArrived());
    beforeFree.release();
    // The purge may not free the token while the list request is inside the library.
    EXPECT_FALSE(purge.finish(300).has_value()) << "the token was freed under a registered call";
    registered.release();
    auto listRc = list.finish();
    ASSERT_TRUE(listRc.has_value());
    EXPECT_NE(*listRc, KVL_OK);  // the connection is closing: the request is refused
    auto purgeRc = purge.finish();
    ASSERT_TRUE(purgeRc.has_value()) << "the purge waited for ever";
    EXPECT_EQ(*purgeRc, KVL_OK);
    token_ = nullptr;
}

}  // namespace
