// The C++ interface: a call, a unit of work that an exception backs out, a few
// asynchronous calls in flight at once, and a channel.
// Usage: kvl_cpp_example HOST PORT  (program names are the Gateway emulator's)
#include <cstdio>
#include <cstdlib>
#include <future>
#include <stdexcept>
#include <vector>

#include "kvlclient.hpp"

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "usage: %s HOST PORT\n", argv[0]);
        return 2;
    }
    try {
        kvl::Connection conn(argv[1], std::atoi(argv[2]), 10);

        kvl::Reply echo = conn.call("ECHO", "hello from C++", {.transaction = "DEMO"});
        std::printf("ECHO answered \"%s\"\n", echo.text().c_str());

        try {
            kvl::Unit unit = conn.begin_unit();
            std::printf("in the unit: \"%s\"\n", unit.call("LUW", std::string(24, ' ')).text().c_str());
            throw std::runtime_error("something went wrong before the commit");
        } catch (const std::runtime_error& e) {
            std::printf("%s: the unit of work was backed out\n", e.what());
        }

        std::vector<std::future<kvl::Reply>> inFlight;
        for (const char* ms : {"300", "100", "200"}) inFlight.push_back(conn.call_async("DELAY", ms));
        for (auto& f : inFlight) std::printf("DELAY answered after %s ms\n", f.get().text().c_str());

        kvl::Channel channel("DEMOCHANNEL");
        channel.set_text("EMUCTL", "ADD GREETING hello;MOD COUNTER 2");
        channel.set_text("COUNTER", "1");
        conn.call("CHANCTL", channel);
        for (const kvl::ContainerInfo& c : channel.containers())
            std::printf("container %-12s %s \"%s\"\n", c.name.c_str(),
                        c.type == kvl::ContainerType::character ? "CHAR" : "BIT ", channel.text(c.name).c_str());

        conn.call("ABEND", "DEMO");  // throws
    } catch (const kvl::Error& e) {
        std::printf("kvl::Error %s: rc %d, name %s, abend %s\n", e.what(), e.rc(), e.name().c_str(),
                    e.abend().c_str());
        return e.rc() == ECI_ERR_TRANSACTION_ABEND ? 0 : 1;
    }
    return 1;
}
