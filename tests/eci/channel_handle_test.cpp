// Handles that do not name a live channel: every channel function refuses them
// before reading the record behind them, whether the channel was deleted
// through another copy of the handle or the handle never named one.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <functional>
#include <string>

#include "kvl_channel.h"

namespace {

struct ChannelCall {
    const char* name;
    std::function<int(chanTok)> call;
};

const ChannelCall kCalls[] = {
    {"createContainer", [](chanTok c) { return ECI_createContainer(c, "C1", ECI_BIT, 0, "x", 1); }},
    {"deleteContainer", [](chanTok c) { return ECI_deleteContainer(c, "C1"); }},
    {"getContainerData",
     [](chanTok c) {
         char buffer[8];
         size_t read = 0;
         return ECI_getContainerData(c, "C1", buffer, sizeof buffer, 0, &read);
     }},
    {"getContainerInfo",
     [](chanTok c) {
         EciContainerInfo info{};
         return ECI_getContainerInfo(c, "C1", &info);
     }},
    {"getFirstContainer",
     [](chanTok c) {
         EciContainerInfo info{};
         return ECI_getFirstContainer(c, &info);
     }},
    {"getNextContainer",
     [](chanTok c) {
         EciContainerInfo info{};
         return ECI_getNextContainer(c, &info);
     }},
    {"setContainerData", [](chanTok c) { return ECI_setContainerData(c, "C1", "yy", 2); }},
    {"getChannelName",
     [](chanTok c) {
         char name[17];
         return ECI_getChannelName(c, name);
     }},
    {"deleteChannel", [](chanTok c) { return ECI_deleteChannel(&c); }},
};

TEST(ChannelHandles, DeletedChannelIsRefusedByEveryFunction) {
    for (const auto& c : kCalls) {
        SCOPED_TRACE(c.name);
        chanTok channel = nullptr;
        ASSERT_EQ(ECI_createChannel("GONE", &channel), ECI_NO_ERROR);
        ASSERT_EQ(ECI_createContainer(channel, "C1", ECI_BIT, 0, "abc", 3), ECI_NO_ERROR);
        chanTok stale = channel;
        ASSERT_EQ(ECI_deleteChannel(&channel), ECI_NO_ERROR);
        // AddressSanitizer reports any read of the freed record.
        EXPECT_EQ(c.call(stale), ECI_ERR_INVALID_CHANNEL);
    }
}

TEST(ChannelHandles, HandlesThatNeverNamedAChannelAreNotFollowed) {
    // Readable garbage, and an address nothing is mapped at.
    static unsigned char junk[512];
    memset(junk, 0xFF, sizeof junk);
    const chanTok handles[] = {reinterpret_cast<chanTok>(junk), reinterpret_cast<chanTok>(uintptr_t{0x18})};
    for (chanTok handle : handles) {
        for (const auto& c : kCalls) {
            SCOPED_TRACE(c.name);
            EXPECT_EQ(c.call(handle), ECI_ERR_INVALID_CHANNEL);
        }
    }
}

// A handle stays good for the channel it names while other channels come and go.
TEST(ChannelHandles, LiveChannelStillWorksAmongDeletedOnes) {
    chanTok keep = nullptr;
    chanTok gone = nullptr;
    ASSERT_EQ(ECI_createChannel("KEEP", &keep), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createChannel("GONE", &gone), ECI_NO_ERROR);
    ASSERT_EQ(ECI_deleteChannel(&gone), ECI_NO_ERROR);
    for (const auto& c : kCalls) {
        SCOPED_TRACE(c.name);
        if (std::string(c.name) == "deleteChannel") continue;
        ECI_createContainer(keep, "C1", ECI_BIT, 0, "abc", 3);
        EXPECT_NE(c.call(keep), ECI_ERR_INVALID_CHANNEL);
    }
    EXPECT_EQ(ECI_deleteChannel(&keep), ECI_NO_ERROR);
}

}  // namespace
