// The DLL entry point: attach starts the socket layer and the library; detach
// only traces and cleans up the socket layer.
#include <windows.h>

#include "impl/clapi_impl.h"

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    (void)instance;
    (void)reserved;
    switch (reason) {
        case DLL_PROCESS_ATTACH:
            clapiProcessAttach();
            break;
        case DLL_PROCESS_DETACH:
            clapiProcessDetach();
            break;
        default:
            break;
    }
    return TRUE;
}
