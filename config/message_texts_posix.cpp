// POSIX half of the message texts. There is no thread locale, so the language is always US
// English (1033). Paths keep the installation's backslash layout, read here as slashes, and a
// module "loads" when it is a regular file that can be opened: nothing is ever mapped.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "config/directories.h"
#include "config/message_texts.h"

namespace {

// Stands for a loaded module; its address is the handle.
char moduleToken;

// The low byte of each unit, backslashes as slashes; false when the path does not fit.
bool ToFilePath(const char16_t* path, char* narrow) {
    for (uint32_t at = 0; at < PATH_CAPACITY; ++at) {
        const char unit = static_cast<char>(path[at] & 0xFF);
        narrow[at] = unit == '\\' ? '/' : unit;
        if (path[at] == u'\0') {
            return true;
        }
    }
    return false;
}
}  // namespace

uint16_t ReadThreadLanguage() {
    return LANGUAGE_ENGLISH_US;
}

ModuleHandle OpenLibraryModule(const char16_t* path) {
    char narrow[PATH_CAPACITY];
    if (path == nullptr || !ToFilePath(path, narrow)) {
        return nullptr;
    }
    const int descriptor = open(narrow, O_RDONLY);
    if (descriptor < 0) {
        return nullptr;
    }
    struct stat status;
    const bool regular = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    close(descriptor);
    return regular ? &moduleToken : nullptr;
}

void CloseLibraryModule(ModuleHandle) {}

FILE* OpenResourceFile(const char* path) {
    if (path == nullptr || strnlen(path, PATH_CAPACITY) == PATH_CAPACITY) {
        return nullptr;  // longer than any path this service builds
    }
    char narrow[PATH_CAPACITY];
    memcpy(narrow, path, strlen(path) + 1);
    ToPlatformPath(narrow);
    return fopen(narrow, "rb");
}
