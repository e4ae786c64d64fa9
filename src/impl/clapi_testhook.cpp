// Test points (clapi_testhook.h); an empty object in the shipped library.
#include "impl/clapi_testhook.h"

#ifdef KVL_TEST_HOOKS
std::atomic<clapiTestHookFn> clapiTestHook{nullptr};

void clapiTestPointReached(const char* point) {
    clapiTestHookFn hook = clapiTestHook.load();
    if (hook) hook(point);
}
#endif
