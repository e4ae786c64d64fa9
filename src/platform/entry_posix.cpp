// Linux has no DllMain: the same attach and detach steps run when the shared
// object is loaded and unloaded, so the environment is read at load as on Windows.
#include "impl/clapi_impl.h"

__attribute__((constructor)) static void kvlLibraryLoaded() { clapiProcessAttach(); }
__attribute__((destructor)) static void kvlLibraryUnloaded() { clapiProcessDetach(); }
