// The simulated twin of config_lock_posix.cpp. The machine runs one process on one thread, and a
// load or save never waits inside (the world rewrites the file between the fibers' steps), so the
// file's named lock has nothing to exclude: a holder is handed out and taken back, as allocated
// and freed as the platform's.
#include <cstdlib>

#include "config/config_file.h"

struct ConfigFileLock {
    int32_t held;
};

ConfigFileLock* LockConfigFile(const char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    ConfigFileLock* holder = static_cast<ConfigFileLock*>(malloc(sizeof(ConfigFileLock)));
    if (holder != nullptr) {
        holder->held = 1;
    }
    return holder;
}

void ReleaseConfigFileLock(ConfigFileLock* holder) { free(holder); }
