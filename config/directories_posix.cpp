// POSIX half of the installation directories: the executable's path from /proc/self/exe, used
// as it is (it has no backslash, so the whole path becomes the root).
#include <unistd.h>

#include "config/directories.h"

void ReadModulePath(char16_t* path, uint32_t capacity) {
    if (path == nullptr || capacity == 0) {
        return;
    }
    path[0] = u'\0';
    char narrow[PATH_CAPACITY];
    const uint32_t limit = capacity < PATH_CAPACITY ? capacity : PATH_CAPACITY;
    const ssize_t length = readlink("/proc/self/exe", narrow, limit - 1);
    if (length <= 0) {
        return;
    }
    // One unit per byte, so that keeping the low byte gives the same bytes back.
    for (ssize_t at = 0; at < length; ++at) {
        path[at] = static_cast<char16_t>(static_cast<unsigned char>(narrow[at]));
    }
    path[length] = u'\0';
}

void ToPlatformPath(char* path) {
    for (char* at = path; at != nullptr && *at != '\0'; ++at) {
        if (*at == '\\') {
            *at = '/';
        }
    }
}
