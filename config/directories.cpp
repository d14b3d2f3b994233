// Installation directories: the root derived from the executable's own path, cached for the
// life of the process, and the data directory below it.
#include "config/directories.h"

#include "config/config_test_seams.h"

#include <atomic>

#include "runtime/runtime.h"
#include "runtime/text.h"

void* moduleHandle = nullptr;

namespace {
// Index of the first unit after a drive's root ("X:\"): the cut is searched from here on.
const uint32_t ROOT_SEARCH_START = 3;

char installRoot[PATH_CAPACITY];
std::atomic<uint32_t> installRootReady{0};

// Created on first use by whichever thread gets here first; the language guarantees once.
Lock* InstallRootLock() {
    static PermanentLock lock;
    return lock.Get();
}

}  // namespace

void ComputeInstallRoot(const char16_t* modulePath, char* root) {
    if (root == nullptr) {
        return;
    }
    root[0] = '\0';
    if (modulePath == nullptr) {
        return;
    }
    uint32_t length = 0;
    while (length < PATH_CAPACITY - 1 && modulePath[length] != u'\0') {
        ++length;
    }
    // The root is always the top-level directory of the drive, however deep the executable
    // lies; without a backslash past "X:\" the whole path is kept.
    for (uint32_t at = ROOT_SEARCH_START; at < length; ++at) {
        if (modulePath[at] == u'\\') {
            length = at;
            break;
        }
    }
    for (uint32_t at = 0; at < length; ++at) {
        // The low byte of each unit, '|' as '!': the rule this system applies wherever it narrows a
        // text, so that the root reads the same as every other narrowed name.
        const char narrow = static_cast<char>(modulePath[at] & 0xFF);
        root[at] = narrow == '|' ? '!' : narrow;
    }
    root[length] = '\0';
}

int32_t GetInstallRoot(char* destination, uint32_t capacity) {
    if (installRootReady.load(std::memory_order_acquire) == 0) {
        EnterLock(InstallRootLock());
        if (installRootReady.load(std::memory_order_relaxed) == 0) {
            char16_t modulePath[PATH_CAPACITY];
            ReadModulePath(modulePath, PATH_CAPACITY);
            ComputeInstallRoot(modulePath, installRoot);
            installRootReady.store(1, std::memory_order_release);
        }
        LeaveLock(InstallRootLock());
    }
    if (destination == nullptr || capacity == 0) {
        return 0;
    }
    destination[0] = '\0';
    AppendText(destination, installRoot, capacity);
    return 0;
}

int32_t GetDataDirectory(char* destination, uint32_t capacity) {
    if (destination == nullptr) {
        return 1;
    }
    if (capacity == 0) {
        return 0;  // no byte to write, not even the NUL
    }
    GetInstallRoot(destination, capacity);
    // Both levels always: there is no separate <root>\Data directory in use.
    AppendText(destination, "\\Data", capacity);
    AppendText(destination, "\\System", capacity);
    return 0;
}

void OverrideInstallRoot(const char* root) {
    EnterLock(InstallRootLock());
    if (root == nullptr) {
        installRootReady.store(0, std::memory_order_release);
    } else {
        installRoot[0] = '\0';
        AppendText(installRoot, root, PATH_CAPACITY);
        installRootReady.store(1, std::memory_order_release);
    }
    LeaveLock(InstallRootLock());
}
