// Asynchronous calls: futures and callbacks, many in flight, and the end of the
// connection while some are unanswered.
#include "cpp_fixture.h"

#include <chrono>
#include <future>
#include <mutex>
#include <vector>

using namespace std::chrono_literals;

TEST_F(CppTest, ManyAsyncCallsInFlightCompleteInAnyOrder) {
    kvl::Connection c = connect();
    std::vector<std::future<kvl::Reply>> gated, quick;
    for (int i = 0; i < 5; ++i) gated.push_back(c.call_async("GATE", "gated " + std::to_string(i)));
    ASSERT_TRUE(emu.waitForGateWaiters(5, 10000));
    for (int i = 0; i < 20; ++i) quick.push_back(c.call_async("ECHO", "quick " + std::to_string(i)));
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(quick[i].wait_for(10s), std::future_status::ready);
        EXPECT_EQ(quick[i].get().text(), "quick " + std::to_string(i));
    }
    EXPECT_EQ(c.in_flight(), 5u);
    emu.openGate();
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(gated[i].wait_for(10s), std::future_status::ready);
        EXPECT_EQ(gated[i].get().text(), "gated " + std::to_string(i));
    }
    EXPECT_EQ(c.in_flight(), 0u);
}

TEST_F(CppTest, AsyncFailuresAndCallbacks) {
    kvl::Connection c = connect();
    auto abend = c.call_async("ABEND", "XY12");
    ASSERT_EQ(abend.wait_for(10s), std::future_status::ready);
    try {
        abend.get();
        ADD_FAILURE() << "no error";
    } catch (const kvl::Error& e) {
        EXPECT_EQ(e.rc(), ECI_ERR_TRANSACTION_ABEND);
        EXPECT_EQ(e.abend(), "XY12");
    }

    std::promise<std::string> seen;
    kvl::Bytes data = kvl::to_bytes("by callback");
    c.call_async("ECHO", data, {}, [&](std::exception_ptr error, kvl::Reply reply) {
        seen.set_value(error ? "error" : reply.text());
    });
    auto f = seen.get_future();
    ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(f.get(), "by callback");
    EXPECT_EQ(rcOf([&] { c.call_async("PROGRAM99", "x"); }), KVL_CPP_ERR_BADFIELD);
}

TEST_F(CppTest, DestroyedConnectionCompletesFuturesWithAnError) {
    std::vector<std::future<kvl::Reply>> futures;
    std::future<kvl::Channel> channelFuture;
    {
        kvl::Connection c = connect();
        for (int i = 0; i < 3; ++i) futures.push_back(c.call_async("GATE", "never answered"));
        kvl::Channel ch("WAITING");
        ch.set_text("IN", "x");
        ASSERT_TRUE(emu.waitForGateWaiters(3, 10000));
        emu.registerProgram("CHANGATE", [](const kvlemu::ProgramCall& call) {
            call.waitGate("CG");
            return kvlemu::ProgramResult{};
        });
        channelFuture = c.call_async("CHANGATE", ch);
        ASSERT_TRUE(emu.waitForGateWaiters(1, 10000, "CG"));
    }
    for (auto& f : futures) {
        ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
        try {
            f.get();
            ADD_FAILURE() << "completed normally";
        } catch (const kvl::Error& e) {
            EXPECT_EQ(e.rc(), KVL_ERR_GWTOK_CLOSED) << e.what();
        }
    }
    ASSERT_EQ(channelFuture.wait_for(10s), std::future_status::ready);
    EXPECT_THROW(channelFuture.get(), kvl::Error);
    emu.openGate();
    emu.openGate("CG");
}

TEST_F(CppTest, CloseWaitsForAsyncRepliesAndDeliversThem) {
    kvl::Connection c = connect();
    auto f = c.call_async("DELAY", "50");
    c.close();
    ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
    EXPECT_EQ(f.get().text(), "50");
    EXPECT_EQ(rcOf([&] { c.call_async("ECHO", "late"); }), KVL_ERR_NULLGWTOK);
}

TEST_F(CppTest, LostConnectionFailsFuturesInFlight) {
    kvl::Connection c = connect();
    auto f = c.call_async("GATE", "x");
    ASSERT_TRUE(emu.waitForGateWaiters(1, 10000));
    ASSERT_TRUE(emu.inject(kvlemu::Fault::drop()));
    ASSERT_EQ(f.wait_for(10s), std::future_status::ready);
    int rc = rcOf([&] { f.get(); });
    EXPECT_NE(rc, 0);
    emu.openGate();
}
