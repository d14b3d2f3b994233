// The simulated twin of runtime_posix.cpp: what the runtime asks of its platform, answered by the
// scheduler. Locks are fiber-aware (a fiber that finds a lock held waits until it is free; the
// owner may take it again), threads are fibers, wakeups end a fiber's timed wait, and the system
// driver reads the machine's simulated clocks. The portable runtime.cpp is linked unchanged.
#include <cstdlib>
#include <cstring>

#include "runtime/platform.h"
#include "runtime/runtime.h"
#include "runtime/runtime_platform.h"
#include "sim/journal.h"
#include "sim/machine.h"
#include "sim/observe.h"
#include "sim/scheduler.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_server.h"

namespace {
struct SimLock {
    SimFiber* owner;
    uint32_t depth;
    uint32_t waiters;
    uint32_t initialised;
};
static_assert(sizeof(SimLock) <= LOCK_STORAGE_SIZE, "a Lock holds a simulated lock");

const uint32_t LOCK_INITIALISED = 0x4C4F434Bu;

SimLock* Simulated(Lock* lock) { return reinterpret_cast<SimLock*>(lock->storage); }
}  // namespace

SimFiber* SimLockOwner(const void* lock) {
    return Simulated(static_cast<Lock*>(const_cast<void*>(lock)))->owner;
}

void InitPlatformLock(Lock* lock) {
    SimLock* simulated = Simulated(lock);
    memset(simulated, 0, sizeof *simulated);
    simulated->initialised = LOCK_INITIALISED;
}

void DeletePlatformLock(Lock* lock) {
    SimLock* simulated = Simulated(lock);
    if (simulated->owner != nullptr || simulated->waiters != 0) {
        SimFail("a lock was deleted while held or waited for");
    }
    simulated->initialised = 0;
}

void EnterPlatformLock(Lock* lock) {
    SimLock* simulated = Simulated(lock);
    if (simulated->initialised != LOCK_INITIALISED) {
        SimFail("a lock was entered that was never initialised (or was deleted)");
    }
    if (simulated->owner == nullptr) {
        simulated->owner = simCurrent;
        simulated->depth = 1;
        ++simCurrent->locksHeld;
        return;
    }
    if (simulated->owner == simCurrent) {
        ++simulated->depth;
        return;
    }
    ++simulated->waiters;
    do {
        WaitFiberOn(lock, WAIT_LOCK);
    } while (simulated->owner != nullptr);
    --simulated->waiters;
    simulated->owner = simCurrent;
    simulated->depth = 1;
    ++simCurrent->locksHeld;
}

void LeavePlatformLock(Lock* lock) {
    SimLock* simulated = Simulated(lock);
    if (simulated->owner != simCurrent) {
        SimFail("a lock was left by a thread that does not hold it");
    }
    if (--simulated->depth == 0) {
        simulated->owner = nullptr;
        --simCurrent->locksHeld;
        if (simulated->waiters != 0) {
            WakeFibersOn(lock);  // they compete for it; the seed decides who wins
        }
    }
}

// One fiber per thread: the same start block and trampoline as the platform files use.
struct JoinableThread {
    SimFiber* fiber;
};

int32_t threadStartsFail = 0;

namespace {
uint8_t RoleOf(ThreadFunction function, bool joinable) {
    if (function == SntpClientThread) {
        return ROLE_CLIENT;
    }
    if (function == SntpServerThread) {
        return ROLE_SERVER;
    }
    // The only other thread of the service is the peer registry's, started joinable.
    return joinable ? ROLE_AGEING : ROLE_OTHER;
}

uint32_t RunThread(uint64_t block) {
    RunThreadStartBlock(reinterpret_cast<void*>(static_cast<uintptr_t>(block)));
    ObserveThreadEnd(simCurrent);
    return 0;
}

SimFiber* CreateFiberThread(ThreadFunction function, uint64_t argument, bool joinable) {
    const uint8_t role = RoleOf(function, joinable);
    if (threadStartsFail != 0 && (role == ROLE_CLIENT || role == ROLE_SERVER)) {
        ObserveThreadStartFailed(role);
        return nullptr;  // the operating system refuses a new thread (out of resources)
    }
    ThreadStartBlock* block = NewThreadStartBlock(function, argument);
    if (block == nullptr) {
        return nullptr;
    }
    SimFiber* fiber = StartFiber(RunThread, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(block)), role,
                                 joinable ? 1 : 0);
    if (fiber == nullptr) {
        FreeThreadStartBlock(block);
        return nullptr;
    }
    ObserveThreadStart(fiber);
    // The starter and the new thread are both runnable now: which goes first is the seed's.
    YieldFiber();
    return fiber;
}
}  // namespace

int32_t StartThread(ThreadFunction function, uint64_t argument) {
    return CreateFiberThread(function, argument, false) != nullptr ? 1 : 0;
}

// A manual-reset event.
struct Wakeup {
    int32_t signalled;
};

Wakeup* CreateWakeup() { return static_cast<Wakeup*>(calloc(1, sizeof(Wakeup))); }

void DestroyWakeup(Wakeup* wakeup) {
    if (wakeup != nullptr) {
        free(wakeup);
    }
}

void SignalWakeup(Wakeup* wakeup) {
    if (wakeup == nullptr) {
        return;
    }
    wakeup->signalled = 1;
    WakeFibersOn(wakeup);
}

int32_t WakeupSignalled(Wakeup* wakeup) { return wakeup != nullptr ? wakeup->signalled : 0; }

void SetCurrentThreadPriority(int32_t priority) { ObservePriority(priority); }

namespace {
uint32_t SimTickCount() { return MachineTickCount(); }
uint64_t SimPreciseTick() { return MachinePreciseTickUs(); }

void SimSleep(uint32_t milliseconds) {
    ObserveSleep(milliseconds);
    SleepFiber(WaitDuration(milliseconds));
}

int64_t SimWallClock() { return MachineWallSeconds(); }
int64_t SimReadClock() { return MachineFileTime(); }

void SimWriteClock(int64_t fileTime) {
    ObserveClockWrite(fileTime);
    // SetSystemTime keeps whole milliseconds.
    const int64_t ticksPerMs = NS_PER_MS / NS_PER_FILETIME_TICK;
    const int64_t whole = fileTime - ((fileTime % ticksPerMs) + ticksPerMs) % ticksPerMs;
    SetClockModel(&systemClock, FileTimeToUnixNs(whole), simNow);
}

// The Windows runtime's generator, its state per thread as there.
void SimSeedRandom(uint32_t seed) { simCurrent->randomState = seed; }

int32_t SimNextRandom() {
    simCurrent->randomState = simCurrent->randomState * 214013u + 2531011u;
    return static_cast<int32_t>((simCurrent->randomState >> 16) & 0x7FFFu);
}

int32_t SimStartJoinableThread(ThreadFunction function, uint64_t argument, ThreadHandle* handle) {
    JoinableThread* joinable = static_cast<JoinableThread*>(calloc(1, sizeof(JoinableThread)));
    if (joinable == nullptr) {
        return 0;
    }
    joinable->fiber = CreateFiberThread(function, argument, true);
    if (joinable->fiber == nullptr) {
        free(joinable);
        return 0;
    }
    *handle = joinable;
    return 1;
}

void SimJoinThread(ThreadHandle handle) {
    SimFiber* fiber = handle->fiber;
    while (fiber->state == FIBER_LIVE) {
        WaitFiberOn(fiber, WAIT_JOIN);
    }
    ReleaseFiber(fiber);
    free(handle);
}

int32_t SimSleepUnlessWoken(Wakeup* wakeup, uint32_t milliseconds) {
    if (wakeup->signalled != 0) {
        return 1;
    }
    WaitFiberOnFor(wakeup, WaitDuration(milliseconds));
    return wakeup->signalled;
}
}  // namespace

const PlatformDriver systemDriver = {
    SimTickCount,  SimPreciseTick, SimSleep,      SimWallClock,         SimReadClock, SimWriteClock,
    SimSeedRandom, SimNextRandom,  SimSleepUnlessWoken, SimStartJoinableThread, SimJoinThread,
};
