// The shared module's load notification. It stands in an object of its own, so that a static build,
// or an application's module with a notification of its own, does not get it.
#include "platform.h"

#define WIN32_LEAN_AND_MEAN
#include <windows.h>

extern "C" BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID);

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID) {
    return platform::notify(reason) ? TRUE : FALSE;
}
