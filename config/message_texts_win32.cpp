// Win32 half of the message texts: the thread's language, module loading and the file open.
#include <windows.h>

#include "config/message_texts.h"

uint16_t ReadThreadLanguage() {
    return LANGIDFROMLCID(GetThreadLocale());
}

ModuleHandle OpenLibraryModule(const char16_t* path) {
    if (path == nullptr) {
        return nullptr;
    }
    // char16_t has the layout of the platform's wchar_t.
    return LoadLibraryW(reinterpret_cast<const wchar_t*>(path));
}

void CloseLibraryModule(ModuleHandle module) {
    if (module != nullptr) {
        FreeLibrary(static_cast<HMODULE>(module));
    }
}

FILE* OpenResourceFile(const char* path) {
    return path != nullptr ? fopen(path, "rb") : nullptr;
}
