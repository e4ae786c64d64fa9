// Test points: named places in the library where a test may hold a thread, to
// open a gap between two steps that otherwise follow each other too quickly to
// race deterministically. Built only with KVL_TEST_HOOKS (test presets); in the
// shipped library CLAPI_TEST_POINT expands to nothing.
#pragma once

#ifdef KVL_TEST_HOOKS
#include <atomic>

// The test's function, called with the point's name; null: none installed.
using clapiTestHookFn = void (*)(const char* point);
extern std::atomic<clapiTestHookFn> clapiTestHook;
void clapiTestPointReached(const char* point);
#define CLAPI_TEST_POINT(name) clapiTestPointReached(name)
#else
#define CLAPI_TEST_POINT(name) ((void)0)
#endif
