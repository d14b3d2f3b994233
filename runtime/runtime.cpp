// The portable half of the runtime: the TickTimer, the driver table and its choke points.
// Locks, threads and the system driver live in runtime_win32.cpp / runtime_posix.cpp.
#include "runtime/runtime.h"

#include <atomic>
#include <cstdlib>
#include <new>

#include "runtime/platform.h"
#include "runtime/runtime_platform.h"
#include "runtime/runtime_test_seams.h"

namespace {
std::atomic<const PlatformDriver*> activeDriver{&systemDriver};

const PlatformDriver& Driver() {
    return *activeDriver.load(std::memory_order_acquire);
}
}  // namespace

const PlatformDriver* InstallPlatformDriver(const PlatformDriver* driver) {
    return activeDriver.exchange(driver != nullptr ? driver : &systemDriver, std::memory_order_acq_rel);
}

const PlatformDriver* ActivePlatformDriver() { return &Driver(); }

uint32_t ReadTickCount() { return Driver().tickCount(); }
uint64_t ReadPreciseTick() { return Driver().preciseTickUs(); }
int64_t ReadSystemFileTime() { return Driver().readSystemClock(); }
void WriteSystemFileTime(int64_t fileTime) { Driver().writeSystemClock(fileTime); }
void SeedRandom(uint32_t seed) { Driver().seedRandom(seed); }
int32_t NextRandom() { return Driver().nextRandom(); }

int32_t SleepFor(uint32_t milliseconds) {
    Driver().sleep(milliseconds);
    return 0;
}

int32_t SleepUnlessWoken(Wakeup* wakeup, uint32_t milliseconds) {
    if (wakeup == nullptr) {
        Driver().sleep(milliseconds);
        return 0;
    }
    return Driver().sleepUnlessWoken(wakeup, milliseconds);
}

int32_t StartJoinableThread(ThreadFunction function, uint64_t argument, ThreadHandle* handle) {
    if (handle == nullptr) {
        return 0;
    }
    *handle = nullptr;
    return Driver().startJoinableThread(function, argument, handle);
}

void JoinThread(ThreadHandle handle) {
    if (handle != nullptr) {
        Driver().joinThread(handle);
    }
}

int32_t PauseBriefly() { return SleepFor(10); }

int64_t ReadWallClock(int64_t* output) {
    const int64_t now = Driver().wallClock();
    if (output != nullptr) {
        *output = now;
    }
    return now;
}

int32_t InitLock(Lock* lock) {
    if (lock == nullptr) {
        return 1;
    }
    InitPlatformLock(lock);
    return 0;
}

int32_t DeleteLock(Lock* lock) {
    if (lock == nullptr) {
        return 1;
    }
    DeletePlatformLock(lock);
    return 0;
}

int32_t EnterLock(Lock* lock) {
    if (lock == nullptr) {
        return 1;
    }
    EnterPlatformLock(lock);
    return 0;
}

int32_t LeaveLock(Lock* lock) {
    if (lock == nullptr) {
        return 1;
    }
    LeavePlatformLock(lock);
    return 0;
}

ThreadStartBlock* NewThreadStartBlock(ThreadFunction function, uint64_t argument) {
    if (function == nullptr) {
        return nullptr;
    }
    ThreadStartBlock* block = static_cast<ThreadStartBlock*>(calloc(1, sizeof(ThreadStartBlock)));
    if (block != nullptr) {
        block->function = function;
        block->argument = argument;
    }
    return block;
}

void FreeThreadStartBlock(ThreadStartBlock* block) { free(block); }

uint32_t RunThreadStartBlock(void* parameter) {
    ThreadStartBlock* block = static_cast<ThreadStartBlock*>(parameter);
    const ThreadFunction function = block->function;
    const uint64_t argument = block->argument;
    FreeThreadStartBlock(block);
    try {
        return function(argument);
    } catch (...) {
        exit(1);  // nothing above a thread could handle it
    }
}

int32_t StartTimer(TickTimer* timer, uint32_t intervalMs) {
    if (timer == nullptr) {
        return 1;
    }
    timer->context = 0;
    timer->interval = intervalMs;
    timer->armed = 1;
    timer->startTick = ReadTickCount();
    return 0;
}

int32_t RestartTimer(TickTimer* timer) {
    if (timer == nullptr) {
        return 1;
    }
    timer->armed = 1;
    timer->startTick = ReadTickCount();
    return 0;
}

int32_t TimerExpiredAt(const TickTimer* timer, uint32_t now) {
    if (timer == nullptr) {
        return 1;  // a missing timer reads as expired
    }
    if (timer->armed == 0) {
        return 0;
    }
    uint32_t elapsed = now - timer->startTick;
    if (now < timer->startTick) {
        // Kept on purpose: across a wrap of the tick counter the timer fires one millisecond
        // later than the plain modular difference would make it.
        elapsed -= 1;
    }
    return elapsed >= timer->interval ? 1 : 0;
}

int32_t TimerExpired(const TickTimer* timer) {
    return TimerExpiredAt(timer, ReadTickCount());
}

int32_t ReleaseTimer(TickTimer* timer) {
    return timer == nullptr ? 1 : 0;
}
