// POSIX half of the runtime: recursive mutexes, detached pthreads and the system driver
// (CLOCK_MONOTONIC as the tick count, CLOCK_REALTIME in whole milliseconds as the system clock).
#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <cstdlib>

#include "runtime/platform.h"
#include "runtime/runtime.h"
#include "runtime/runtime_platform.h"

static_assert(sizeof(pthread_mutex_t) <= LOCK_STORAGE_SIZE, "a Lock holds a pthread mutex");

namespace {
// A recursive mutex gives the critical section's semantics.
pthread_mutex_t* Mutex(Lock* lock) { return reinterpret_cast<pthread_mutex_t*>(lock->storage); }
}  // namespace

void InitPlatformLock(Lock* lock) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(Mutex(lock), &attributes);
    pthread_mutexattr_destroy(&attributes);
}

void DeletePlatformLock(Lock* lock) { pthread_mutex_destroy(Mutex(lock)); }
void EnterPlatformLock(Lock* lock) { pthread_mutex_lock(Mutex(lock)); }
void LeavePlatformLock(Lock* lock) { pthread_mutex_unlock(Mutex(lock)); }

namespace {
void* RunThread(void* parameter) {
    RunThreadStartBlock(parameter);
    return nullptr;
}

uint32_t SystemTickCount() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const uint64_t ms = static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
    return static_cast<uint32_t>(ms);
}

uint64_t SystemPreciseTick() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

void SystemSleep(uint32_t milliseconds) {
    timespec interval;
    interval.tv_sec = milliseconds / 1000u;
    interval.tv_nsec = static_cast<long>(milliseconds % 1000u) * 1000000L;
    while (nanosleep(&interval, &interval) != 0 && errno == EINTR) {
    }
}

timespec DeadlineAfter(uint32_t milliseconds) {
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(milliseconds / 1000u);
    deadline.tv_nsec += static_cast<long>(milliseconds % 1000u) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return deadline;
}

int32_t SystemSleepUnlessWoken(Wakeup* wakeup, uint32_t milliseconds);

int64_t SystemWallClock() { return static_cast<int64_t>(time(nullptr)); }

int64_t SystemReadClock() {
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const int64_t ms = static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
    return UNIX_EPOCH_FILETIME + ms * FILETIME_TICKS_PER_MS;
}

void SystemWriteClock(int64_t fileTime) {
    const int64_t ms = (fileTime - UNIX_EPOCH_FILETIME) / FILETIME_TICKS_PER_MS;
    timespec value;
    value.tv_sec = static_cast<time_t>(ms / 1000);
    value.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    clock_settime(CLOCK_REALTIME, &value);  // a failure leaves the clock; the next exchange tries again
}

// The C library's rand here reaches 2^31 - 1, but callers count on the 0..32767 of the Windows
// runtime (the start delay multiplies by 60 in 32 bits). So this side runs that runtime's own
// generator, with its state per thread as there: both builds draw the same sequence from a seed.
thread_local uint32_t randomState = 1;

void SystemSeedRandom(uint32_t seed) { randomState = seed; }

int32_t SystemNextRandom() {
    randomState = randomState * 214013u + 2531011u;
    return static_cast<int32_t>((randomState >> 16) & 0x7FFFu);
}

// The joinable threads, defined below beside the thread type.
int32_t SystemStartJoinableThread(ThreadFunction function, uint64_t argument, ThreadHandle* handle);
void SystemJoinThread(ThreadHandle handle);
}  // namespace

const PlatformDriver systemDriver = {
    SystemTickCount,  SystemPreciseTick, SystemSleep,      SystemWallClock,       SystemReadClock, SystemWriteClock,
    SystemSeedRandom, SystemNextRandom, SystemSleepUnlessWoken, SystemStartJoinableThread, SystemJoinThread,
};

// A condition variable on the monotonic clock stands in for the Windows event.
struct Wakeup {
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    int32_t signalled;
};

struct JoinableThread {
    pthread_t thread;
};

Wakeup* CreateWakeup() {
    Wakeup* wakeup = static_cast<Wakeup*>(calloc(1, sizeof(Wakeup)));
    if (wakeup == nullptr) {
        return nullptr;
    }
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&wakeup->changed, &attributes);
    pthread_condattr_destroy(&attributes);
    pthread_mutex_init(&wakeup->mutex, nullptr);
    return wakeup;
}

void DestroyWakeup(Wakeup* wakeup) {
    if (wakeup == nullptr) {
        return;
    }
    pthread_cond_destroy(&wakeup->changed);
    pthread_mutex_destroy(&wakeup->mutex);
    free(wakeup);
}

void SignalWakeup(Wakeup* wakeup) {
    if (wakeup == nullptr) {
        return;
    }
    pthread_mutex_lock(&wakeup->mutex);
    wakeup->signalled = 1;
    pthread_cond_broadcast(&wakeup->changed);
    pthread_mutex_unlock(&wakeup->mutex);
}

int32_t WakeupSignalled(Wakeup* wakeup) {
    if (wakeup == nullptr) {
        return 0;
    }
    pthread_mutex_lock(&wakeup->mutex);
    const int32_t signalled = wakeup->signalled;
    pthread_mutex_unlock(&wakeup->mutex);
    return signalled;
}

namespace {
int32_t SystemSleepUnlessWoken(Wakeup* wakeup, uint32_t milliseconds) {
    const timespec deadline = DeadlineAfter(milliseconds);
    pthread_mutex_lock(&wakeup->mutex);
    while (wakeup->signalled == 0) {
        if (pthread_cond_timedwait(&wakeup->changed, &wakeup->mutex, &deadline) == ETIMEDOUT) {
            break;
        }
    }
    const int32_t signalled = wakeup->signalled;
    pthread_mutex_unlock(&wakeup->mutex);
    return signalled;
}
}  // namespace

namespace {
// Creates the thread detached or joinable; 1 and its identity when it was created.
int32_t CreatePlatformThread(ThreadFunction function, uint64_t argument, bool detached, pthread_t* thread) {
    ThreadStartBlock* block = NewThreadStartBlock(function, argument);
    if (block == nullptr) {
        return 0;
    }
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, detached ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
    const int failed = pthread_create(thread, &attributes, RunThread, block);
    pthread_attr_destroy(&attributes);
    if (failed != 0) {
        FreeThreadStartBlock(block);
        return 0;
    }
    return 1;
}
}  // namespace

int32_t StartThread(ThreadFunction function, uint64_t argument) {
    pthread_t thread;
    return CreatePlatformThread(function, argument, true, &thread);
}

namespace {
int32_t SystemStartJoinableThread(ThreadFunction function, uint64_t argument, ThreadHandle* handle) {
    JoinableThread* joinable = static_cast<JoinableThread*>(calloc(1, sizeof(JoinableThread)));
    if (joinable == nullptr) {
        return 0;
    }
    if (CreatePlatformThread(function, argument, false, &joinable->thread) == 0) {
        free(joinable);
        return 0;
    }
    *handle = joinable;
    return 1;
}

void SystemJoinThread(ThreadHandle handle) {
    pthread_join(handle->thread, nullptr);
    free(handle);
}
}  // namespace

void SetCurrentThreadPriority(int32_t) {}
