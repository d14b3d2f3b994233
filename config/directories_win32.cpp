// Win32 half of the installation directories: the module's own path.
#include <windows.h>

#include "config/directories.h"

void ReadModulePath(char16_t* path, uint32_t capacity) {
    if (path == nullptr || capacity == 0) {
        return;
    }
    // char16_t has the layout of the platform's wchar_t.
    const DWORD length = GetModuleFileNameW(static_cast<HMODULE>(moduleHandle), reinterpret_cast<wchar_t*>(path),
                                            capacity);
    if (length == 0) {
        path[0] = u'\0';  // a failure leaves an empty root for the life of the process
    }
    path[capacity - 1] = u'\0';  // older systems leave a truncated path unterminated
}

void ToPlatformPath(char*) {}
