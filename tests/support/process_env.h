// Environment and child processes for tests that need the library freshly loaded.
#pragma once

#include <string>

namespace kvltest {
void setEnv(const std::string& name, const std::string& value);
void unsetEnv(const std::string& name);
// Runs a program from the test binaries' folder through the system shell; returns its exit status.
int runSibling(const std::string& program, const std::string& arguments = "");
}  // namespace kvltest
