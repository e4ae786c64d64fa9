// Test entry point: the internal library has no loader hooks, so run the
// load-time steps here before any test, exactly as the shared library would.
#include <gtest/gtest.h>

#include "impl/clapi_impl.h"

int main(int argc, char** argv) {
    clapiProcessAttach();
    ::testing::InitGoogleTest(&argc, argv);
    int rc = RUN_ALL_TESTS();
    clapiProcessDetach();
    return rc;
}
