// The configuration file's named mutex on Windows. Its name is the file name after the last
// backslash, upper-cased, widened byte by byte with sign extension, '|' made '!', at most 259
// characters and without a namespace prefix: "VANTOR.DAT" for ...\Data\System\Vantor.dat. The
// platform's other programs that share the file derive the same name.
#include <windows.h>

#include <new>

#include <cstdlib>
#include <cstring>

#include "config/config_file.h"
#include "runtime/handles_win32.h"
#include "runtime/text.h"

namespace {
const size_t CONFIG_LOCK_NAME_MAX = 259;  // characters of the path looked at, and of the name
}

struct ConfigFileLock {
    UniqueKernelHandle mutex;
};

ConfigFileLock* LockConfigFile(const char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    char narrow[CONFIG_LOCK_NAME_MAX + 1];
    size_t length = strnlen(path, CONFIG_LOCK_NAME_MAX);
    memcpy(narrow, path, length);
    narrow[length] = '\0';
    const char* backslash = strrchr(narrow, '\\');
    const char* name = backslash != nullptr ? backslash + 1 : narrow;

    wchar_t wide[CONFIG_LOCK_NAME_MAX + 1];
    size_t used = 0;
    for (; name[used] != '\0' && used < CONFIG_LOCK_NAME_MAX; ++used) {
        const char c = UpperAscii(name[used]);
        // Sign extension turns bytes from 0x80 up into 0xFF80..0xFFFF: odd, but it is the name
        // that the other programs sharing these files wait on.
        wchar_t w = static_cast<wchar_t>(static_cast<signed char>(c));
        wide[used] = w == L'|' ? L'!' : w;
    }
    wide[used] = L'\0';

    UniqueKernelHandle mutex(CreateMutexW(nullptr, FALSE, wide));
    if (!mutex.Valid()) {
        return nullptr;
    }
    ConfigFileLock* holder = new (std::nothrow) ConfigFileLock;
    if (holder == nullptr) {
        return nullptr;
    }
    holder->mutex.Reset(mutex.Release());
    // WAIT_ABANDONED also hands over ownership: a writer that died mid-save leaves its backup
    // behind, which is all the next one needs.
    WaitForSingleObject(holder->mutex.Get(), INFINITE);
    return holder;
}

void ReleaseConfigFileLock(ConfigFileLock* holder) {
    if (holder == nullptr) {
        return;
    }
    ReleaseMutex(holder->mutex.Get());
    delete holder;
}
