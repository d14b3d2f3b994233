// The configuration file's inter-process lock on POSIX, the counterpart of the Windows named
// mutex: an exclusive flock on the lock file /tmp/NorvikConfig.<NAME>.lock, where NAME is the
// file name after the last '/' or '\', upper-cased, with '|' made '!' (so ".../Vantor.dat" locks
// /tmp/NorvikConfig.VANTOR.DAT.lock). /tmp is fixed rather than $TMPDIR so that every process
// finds the same file. Lock files are never removed: unlinking one while another process waits
// on it would let a third lock a new file beside it.
//
// Like a Windows mutex the lock excludes other threads as well as other processes (each
// holder opens the file anew, and flock locks belong to the open file), and the thread that
// holds it may take it again: a writer can hold it around a whole load, set and save.
#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "config/config_file.h"
#include "runtime/text.h"

namespace {
const char CONFIG_LOCK_PREFIX[] = "/tmp/NorvikConfig.";
const char CONFIG_LOCK_SUFFIX[] = ".lock";
const size_t CONFIG_LOCK_PATH_MAX = 259;  // characters of the path looked at
// The lock file's own name must fit a directory entry (255 bytes); longer names are cut, which
// at worst makes two such files share a lock.
const size_t CONFIG_LOCK_NAME_MAX = 255 - (sizeof "NorvikConfig." - 1) - (sizeof CONFIG_LOCK_SUFFIX - 1);
const mode_t CONFIG_LOCK_MODE = 0666;  // every user's writers share it

// A lock held by a thread of this process: other holders of the same thread count on it.
struct HeldLock {
    HeldLock* next;
    pthread_t owner;
    uint32_t depth;
    int descriptor;
    char lockPath[sizeof CONFIG_LOCK_PREFIX + CONFIG_LOCK_NAME_MAX + sizeof CONFIG_LOCK_SUFFIX];
};

pthread_mutex_t heldLocksGuard = PTHREAD_MUTEX_INITIALIZER;
HeldLock* heldLocks = nullptr;

void MakeLockPath(const char* path, char (&lockPath)[sizeof HeldLock::lockPath]) {
    size_t length = strnlen(path, CONFIG_LOCK_PATH_MAX);
    size_t start = 0;
    for (size_t i = 0; i < length; ++i) {
        if (path[i] == '/' || path[i] == '\\') {
            start = i + 1;
        }
    }
    size_t used = sizeof CONFIG_LOCK_PREFIX - 1;
    memcpy(lockPath, CONFIG_LOCK_PREFIX, used);
    for (size_t i = start; i < length && i - start < CONFIG_LOCK_NAME_MAX; ++i) {
        const char c = UpperAscii(path[i]);
        lockPath[used++] = c == '|' ? '!' : c;
    }
    memcpy(lockPath + used, CONFIG_LOCK_SUFFIX, sizeof CONFIG_LOCK_SUFFIX);
}

HeldLock* FindHeldLock(const char* lockPath) {
    for (HeldLock* held = heldLocks; held != nullptr; held = held->next) {
        if (pthread_equal(held->owner, pthread_self()) && strcmp(held->lockPath, lockPath) == 0) {
            return held;
        }
    }
    return nullptr;
}

// Opens and locks the lock file; -1 when it cannot be had.
int AcquireLockFile(const char* lockPath) {
    int descriptor = open(lockPath, O_RDWR | O_CREAT | O_CLOEXEC, CONFIG_LOCK_MODE);
    if (descriptor < 0) {
        descriptor = open(lockPath, O_RDONLY | O_CLOEXEC);  // another user's file: flock needs no write
    }
    if (descriptor < 0) {
        return -1;
    }
    while (flock(descriptor, LOCK_EX) != 0) {
        if (errno != EINTR) {
            close(descriptor);
            return -1;
        }
    }
    return descriptor;
}
}  // namespace

struct ConfigFileLock {
    HeldLock* held;
};

ConfigFileLock* LockConfigFile(const char* path) {
    if (path == nullptr) {
        return nullptr;
    }
    ConfigFileLock* holder = static_cast<ConfigFileLock*>(malloc(sizeof(ConfigFileLock)));
    HeldLock* held = static_cast<HeldLock*>(calloc(1, sizeof(HeldLock)));
    if (holder == nullptr || held == nullptr) {
        free(holder);
        free(held);
        return nullptr;
    }
    MakeLockPath(path, held->lockPath);

    pthread_mutex_lock(&heldLocksGuard);
    HeldLock* already = FindHeldLock(held->lockPath);
    if (already != nullptr) {
        already->depth += 1;
    }
    pthread_mutex_unlock(&heldLocksGuard);
    if (already != nullptr) {
        free(held);
        holder->held = already;
        return holder;
    }

    held->descriptor = AcquireLockFile(held->lockPath);  // waits without a time limit
    if (held->descriptor < 0) {
        free(holder);
        free(held);
        return nullptr;
    }
    held->owner = pthread_self();
    held->depth = 1;
    pthread_mutex_lock(&heldLocksGuard);
    held->next = heldLocks;
    heldLocks = held;
    pthread_mutex_unlock(&heldLocksGuard);
    holder->held = held;
    return holder;
}

void ReleaseConfigFileLock(ConfigFileLock* holder) {
    if (holder == nullptr) {
        return;
    }
    HeldLock* held = holder->held;
    free(holder);
    pthread_mutex_lock(&heldLocksGuard);
    held->depth -= 1;
    bool last = held->depth == 0;
    if (last) {
        for (HeldLock** link = &heldLocks; *link != nullptr; link = &(*link)->next) {
            if (*link == held) {
                *link = held->next;
                break;
            }
        }
    }
    pthread_mutex_unlock(&heldLocksGuard);
    if (last) {
        flock(held->descriptor, LOCK_UN);
        close(held->descriptor);
        free(held);
    }
}
