// Runtime primitives: null-tolerant lock wrappers, the TickTimer interval timer, the detached
// thread starter, sleeps, the wall clock and thread priority.
//
// Status convention: 0 for success, 1 for a null object. StartThread alone returns 1 for
// success and 0 for failure; its callers test for that polarity.
#pragma once

#include <cstdint>

#include "runtime/platform.h"

// Room for the platform's lock: a CRITICAL_SECTION on Windows, a recursive pthread mutex on
// POSIX (each 40 bytes on the 64-bit platforms we build for; the platform file checks that it
// fits). Recursive for its owner, no time-out. Owned by its user; the wrappers never allocate.
const uint32_t LOCK_STORAGE_SIZE = 64;

struct Lock {
    alignas(8) unsigned char storage[LOCK_STORAGE_SIZE];
};

int32_t InitLock(Lock* lock);
int32_t DeleteLock(Lock* lock);
int32_t EnterLock(Lock* lock);
int32_t LeaveLock(Lock* lock);

// A lock that lives as long as the process: made when first used (as a function's static, which
// the language makes once, whichever thread comes first) and never deleted, so that no order of
// starts, stops and process exit can ever meet it freed.
class PermanentLock {
public:
    PermanentLock() { InitLock(&lock_); }
    PermanentLock(const PermanentLock&) = delete;
    PermanentLock& operator=(const PermanentLock&) = delete;
    Lock* Get() { return &lock_; }

private:
    Lock lock_;
};

// Holds a lock for the rest of the scope; null locks are ignored as by EnterLock.
class LockHold {
public:
    explicit LockHold(Lock* lock) : lock_(lock) { EnterLock(lock_); }
    ~LockHold() { LeaveLock(lock_); }
    LockHold(const LockHold&) = delete;
    LockHold& operator=(const LockHold&) = delete;

private:
    Lock* lock_;
};

// Interval timer on the 32-bit millisecond tick count. Fields in this order.
struct TickTimer {
    uint32_t startTick;  // tick count when last started or restarted
    uint32_t interval;   // milliseconds
    uint32_t armed;      // 1 once started; an unarmed timer never fires
    uint64_t context;    // cleared by start; nothing reads it
};

int32_t StartTimer(TickTimer* timer, uint32_t intervalMs);
int32_t RestartTimer(TickTimer* timer);
// 1 when the interval has run out (and for a null timer), 0 when not or when unarmed.
int32_t TimerExpired(const TickTimer* timer);
// The same decision for a given tick count: the pure core of TimerExpired.
int32_t TimerExpiredAt(const TickTimer* timer, uint32_t now);
// Has no effect; 0 for a timer, 1 for a null pointer.
int32_t ReleaseTimer(TickTimer* timer);

// Runs function(argument) on a new detached thread. 1 when the thread was created, 0 otherwise.
// An exception escaping the function ends the process with exit status 1.
int32_t StartThread(ThreadFunction function, uint64_t argument);

// A thread whose end is waited for: the few threads that must be gone before their owner goes on
// (the peer registry's ageing thread, the time thread). Null when none runs.
typedef JoinableThread* ThreadHandle;

// Runs function(argument) on a new thread that JoinThread waits for. 1 and *handle when the
// thread was created, 0 and a null *handle otherwise (the thread starter's polarity).
int32_t StartJoinableThread(ThreadFunction function, uint64_t argument, ThreadHandle* handle);
// Waits until the thread has returned and releases its handle. Null is ignored.
void JoinThread(ThreadHandle handle);

// A signal that ends a SleepUnlessWoken at once: how an owner stops a thread that sleeps between
// rounds without waiting for its sleep to run out. Manual reset: once signalled it stays so.
// Null when it cannot be made; the functions below ignore a null wakeup.
Wakeup* CreateWakeup();
void DestroyWakeup(Wakeup* wakeup);
void SignalWakeup(Wakeup* wakeup);
// 1 once signalled, else 0 (also for null).
int32_t WakeupSignalled(Wakeup* wakeup);
// Sleeps up to milliseconds through the platform driver: 1 as soon as the wakeup is signalled,
// 0 when the time ran out. A null wakeup is a plain sleep.
int32_t SleepUnlessWoken(Wakeup* wakeup, uint32_t milliseconds);

// Sleeps through the platform driver (virtual in tests). Both return 0.
int32_t SleepFor(uint32_t milliseconds);
int32_t PauseBriefly();  // 10 ms

// Seconds since 1970-01-01 UTC; also stored through output when it is not null.
int64_t ReadWallClock(int64_t* output);

const uint32_t MS_PER_SECOND = 1000;
const uint32_t US_PER_MS = 1000;

const int32_t PRIORITY_NORMAL = 0;   // THREAD_PRIORITY_NORMAL
const int32_t PRIORITY_HIGHEST = 2;  // THREAD_PRIORITY_HIGHEST

// Sets the calling thread's scheduling priority. POSIX keeps the default policy: raising it
// needs privileges that a test machine does not have, and nothing there depends on it.
void SetCurrentThreadPriority(int32_t priority);
