// --repeat N --concurrency C: a quick load check on one connection.
#pragma once

#include <string>

#include "commands.h"
#include "kvlclient.hpp"

namespace kvlcli {

// Makes `a.repeat` calls from `a.concurrency` threads; prints calls per second and
// latency quantiles (and a progress line when standard error is a terminal).
int runLoad(kvl::Connection& conn, const CallArgs& a, const std::string& data, bool json);

}  // namespace kvlcli
