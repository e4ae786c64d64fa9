#include "process_env.h"

#include <cstdlib>

namespace kvltest {

#ifdef _WIN32
void setEnv(const std::string& name, const std::string& value) { _putenv_s(name.c_str(), value.c_str()); }
void unsetEnv(const std::string& name) { _putenv_s(name.c_str(), ""); }
int runSibling(const std::string& program, const std::string& arguments) {
    return std::system((program + ".exe " + arguments).c_str());
}
#else
void setEnv(const std::string& name, const std::string& value) { setenv(name.c_str(), value.c_str(), 1); }
void unsetEnv(const std::string& name) { unsetenv(name.c_str()); }
int runSibling(const std::string& program, const std::string& arguments) {
    return std::system(("./" + program + " " + arguments).c_str());
}
#endif

}  // namespace kvltest
