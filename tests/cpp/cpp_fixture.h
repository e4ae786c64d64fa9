// What the C++ interface tests share: an emulator on a free loopback port and a
// connection to it.
#pragma once

#include <gtest/gtest.h>

#include <string>

#include "gateway_emulator/emulator.h"
#include "kvlclient.hpp"

class CppTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(emu.start("127.0.0.1", 0)) << emu.lastError(); }
    kvl::Connection connect() { return kvl::Connection("127.0.0.1", emu.port(), 10); }

    // The code of the kvl::Error that `body` throws, or 0 when it throws none.
    template <class Body>
    static int rcOf(Body body) {
        try {
            body();
        } catch (const kvl::Error& e) {
            return e.rc();
        }
        return 0;
    }

    kvlemu::Emulator emu;
};
