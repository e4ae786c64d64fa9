// Channel API: create, name, delete (also of handles that are not channels) and dump.
#include "eci_test_util.h"

using namespace ecitest;

extern "C" int kvlChannelCApiRoundTrip(void);

TEST(ChannelApi, CreateChecksPointerBeforeNameAndTheNameIsCopiedOutTerminated) {
    chanTok full = nullptr;
    EXPECT_EQ(ECI_createChannel("A", nullptr), ECI_ERR_NULLCHANNELPTR);
    EXPECT_EQ(ECI_createChannel(nullptr, nullptr), ECI_ERR_NULLCHANNELPTR);
    EXPECT_EQ(ECI_createChannel(nullptr, &full), ECI_ERR_INVALID_NAME);
    EXPECT_EQ(ECI_createChannel("NO GOOD", &full), ECI_ERR_INVALID_NAME);
    EXPECT_EQ(full, nullptr);

    chanTok shortName = nullptr;
    ASSERT_EQ(ECI_createChannel("SIXTEEN_CHARS_16", &full), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createChannel("AB", &shortName), ECI_NO_ERROR);
    char buffer[17];
    memset(buffer, 0x7F, sizeof buffer);
    EXPECT_EQ(ECI_getChannelName(full, buffer), ECI_NO_ERROR);
    EXPECT_EQ(std::string(buffer, 17), std::string("SIXTEEN_CHARS_16") + '\0');
    memset(buffer, 0x7F, sizeof buffer);
    EXPECT_EQ(ECI_getChannelName(shortName, buffer), ECI_NO_ERROR);
    EXPECT_EQ(std::string(buffer, 17), std::string("AB") + std::string(15, '\0'));
    EXPECT_EQ(ECI_getChannelName(nullptr, buffer), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(ECI_getChannelName(full, nullptr), ECI_ERR_NULLPTR);
    EXPECT_EQ(full->isLocked, 0);
    EXPECT_EQ(ECI_deleteChannel(&full), ECI_NO_ERROR);
    EXPECT_EQ(ECI_deleteChannel(&shortName), ECI_NO_ERROR);
}

TEST(ChannelApi, DeleteClearsTheHandleAndRefusesItAgain) {
    TraceCapture trace(4);
    chanTok ch = nullptr;
    ASSERT_EQ(ECI_createChannel("GONE", &ch), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createContainer(ch, "DATA", ECI_BIT, 0, "12345", 5), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createContainer(ch, "EMPTY", ECI_BIT, 0, nullptr, 0), ECI_NO_ERROR);
    EXPECT_TRUE(traced(trace, 1305, "API.ECI_createChannel() New channel \"GONE\" created ("));
    chanTok copy = ch;
    EXPECT_EQ(ECI_deleteChannel(&ch), ECI_NO_ERROR);
    EXPECT_EQ(ch, nullptr);
    EXPECT_EQ(trace.linesWithId(1420).size(), 1u);  // only the container with data
    EXPECT_EQ(trace.linesWithId(1421).size(), 2u);
    EXPECT_TRUE(traced(trace, 1422, "Deleted channel \"GONE\""));
    EXPECT_EQ(ECI_deleteChannel(&ch), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(trace.linesWithId(1312).size(), 1u);
    // A stale copy of the handle is refused without being touched.
    EXPECT_EQ(ECI_deleteChannel(&copy), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(trace.linesWithId(1313).size(), 1u);
    EXPECT_NE(copy, nullptr);
    EXPECT_EQ(ECI_deleteChannel(nullptr), ECI_ERR_NULLCHANNELPTR);
}

TEST(ChannelApi, DeleteRefusesRecordsThatAreNotOnTheList) {
    kvlChannel zeroed{};
    chanTok handle = &zeroed;
    EXPECT_EQ(ECI_deleteChannel(&handle), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(handle, &zeroed);

    // A well-formed channel record the library never listed stays as it was: unlocked.
    kvlChannel foreign{};
    ASSERT_EQ(clapiInitLock(&foreign.serlock), 0);
    ASSERT_EQ(clapiCreateEvent(&foreign.unlockEvent), 0);
    handle = &foreign;
    EXPECT_EQ(ECI_deleteChannel(&handle), ECI_ERR_INVALID_CHANNEL);
    EXPECT_EQ(handle, &foreign);
    EXPECT_EQ(foreign.isLocked, 0);
    EXPECT_EQ(lockChannel(&foreign), ECI_NO_ERROR);  // still usable
    EXPECT_EQ(unlockChannel(&foreign), ECI_NO_ERROR);
    clapiDeleteEvent(&foreign.unlockEvent);
    clapiDestroyLock(&foreign.serlock);
}

TEST(ChannelApi, DeleteAllEmptiesTheListAndDumpSaysSo) {
    chanTok a = nullptr, b = nullptr;
    {
        TraceCapture trace(2);
        ASSERT_EQ(ECI_createChannel("A", &a), ECI_NO_ERROR);
        ASSERT_EQ(ECI_createChannel("A", &b), ECI_NO_ERROR);  // names need not be unique
        ASSERT_EQ(ECI_createContainer(a, "C1", ECI_CHAR, 37, "hi", 2), ECI_NO_ERROR);
        ASSERT_EQ(ECI_createContainer(b, "C1", ECI_BIT, 0, "hi", 2), ECI_NO_ERROR);
        ASSERT_EQ(ECI_createContainer(b, "C2", ECI_BIT, 0, "hi", 2), ECI_NO_ERROR);
        EXPECT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
        EXPECT_GE(trace.linesWithId(1429).size(), 2u);
        EXPECT_GE(trace.linesWithId(1317).size(), 3u);
    }
    EXPECT_EQ(clapiChannelListHead, nullptr);
    EXPECT_EQ(clapiChannelIsListed(a), 0);
    TraceCapture trace(0);  // the dump is written whatever the level
    EXPECT_EQ(KVL_ECI_dumpChannels(), KVL_OK);
    std::string dashes(80, '-');
    EXPECT_EQ(trace.text(), "Channel and container dump\n" + dashes + "\nThe channel list is EMPTY\n" + dashes + "\n");
}

TEST(ChannelApi, DumpListsChannelsAndContainersNewestFirst) {
    ASSERT_EQ(ECI_deleteAllChannels(), ECI_NO_ERROR);
    chanTok older = nullptr, newer = nullptr;
    ASSERT_EQ(ECI_createChannel("OLDER", &older), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createChannel("NEWER", &newer), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createContainer(newer, "BITS", ECI_BIT, 0, "0123456789", 10), ECI_NO_ERROR);
    ASSERT_EQ(ECI_createContainer(newer, "TEXT", ECI_CHAR, 37, "abc", 3), ECI_NO_ERROR);
    TraceCapture trace(0);
    EXPECT_EQ(KVL_ECI_dumpChannels(), KVL_OK);
    auto lines = trace.lines();
    ASSERT_EQ(lines.size(), 8u);
    EXPECT_EQ(lines[2].rfind("Channel list entry -0001- : Channel(", 0), 0u);
    EXPECT_NE(lines[2].find("eyecatcher(KVLCHANN) name(           NEWER) serlock("), std::string::npos);
    EXPECT_NE(lines[2].find("isLocked(0) ccsid(37) numContainers(2)"), std::string::npos);
    EXPECT_EQ(lines[3].rfind("   Container list entry -0001/0001- : Container(", 0), 0u);
    EXPECT_NE(lines[3].find("eyecatcher(KVLCONTA) name(            TEXT) type(2) ccsid(37) dataLength(3)"),
              std::string::npos);
    EXPECT_NE(lines[4].find("-0001/0002- : Container("), std::string::npos);
    EXPECT_NE(lines[4].find("name(            BITS) type(1) ccsid(0) dataLength(10)"), std::string::npos);
    EXPECT_EQ(lines[5].rfind("Channel list entry -0002- : Channel(", 0), 0u);
    EXPECT_NE(lines[5].find("name(           OLDER)"), std::string::npos);
    EXPECT_EQ(lines[6], "Total number of channels=2");
    EXPECT_EQ(lines[7], std::string(80, '-'));
    EXPECT_EQ(ECI_deleteChannel(&older), ECI_NO_ERROR);
    EXPECT_EQ(ECI_deleteChannel(&newer), ECI_NO_ERROR);
}

TEST(ChannelApi, UsableFromC) { EXPECT_EQ(kvlChannelCApiRoundTrip(), 0); }
