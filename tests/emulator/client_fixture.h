// The emulator configured from text and driven through the client library.
#pragma once

#include <chrono>
#include <string>

#include "eci/eci_test_util.h"
#include "gateway_emulator/config.h"

namespace emutest {

using ecitest::Bytes;

class ConfiguredEmulator : public ecitest::EmulatorConnection {
protected:
    // Applies configuration text to the running emulator; the test fails on an error.
    void configure(const std::string& text) {
        kvlemu::Config c;
        std::string error;
        ASSERT_TRUE(kvlemu::parseConfig(text, c, error)) << error;
        kvlemu::applyConfig(c, emu);
    }

    struct Answer {
        int rc = 0;
        std::string abend;
        std::string area;  // the COMMAREA as it came back
        int luwToken = 0;
    };
    // A synchronous call of `program` with `request` in a COMMAREA of `length` bytes.
    Answer callOn(gwTok t, const std::string& program, const std::string& request, size_t length = 64,
                  short extendMode = 0, int luwToken = 0) {
        Bytes area(length, ' ');
        std::copy_n(request.begin(), std::min(request.size(), length), area.begin());
        EciParms p = ecitest::callParms(ECI_SYNC, program, area);
        p.eci_extend_mode = extendMode;
        p.eci_luw_token = luwToken;
        Answer a;
        a.rc = KVL_ECI_Execute(t, &p);
        a.abend = kvlemu::wire::fieldText(std::string(p.eci_abend, 4));
        a.area.assign(area.begin(), area.end());
        a.luwToken = p.eci_luw_token;
        return a;
    }
    Answer call(const std::string& program, const std::string& request, size_t length = 64, short extendMode = 0,
                int luwToken = 0) {
        return callOn(token, program, request, length, extendMode, luwToken);
    }

    static long long msSince(std::chrono::steady_clock::time_point t) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t).count();
    }
};

}  // namespace emutest
