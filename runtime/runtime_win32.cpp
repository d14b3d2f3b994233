// Win32 half of the runtime: critical sections, _beginthreadex, thread priority and the system
// driver (GetTickCount, Sleep, _time64, GetSystemTime/SetSystemTime, srand/rand).
#include <windows.h>
#include <process.h>

#include <cstdlib>
#include <new>
#include <ctime>

#include "runtime/handles_win32.h"
#include "runtime/platform.h"
#include "runtime/runtime.h"
#include "runtime/runtime_platform.h"

static_assert(sizeof(CRITICAL_SECTION) <= LOCK_STORAGE_SIZE, "a Lock holds a critical section");

namespace {
CRITICAL_SECTION* Section(Lock* lock) { return reinterpret_cast<CRITICAL_SECTION*>(lock->storage); }
}  // namespace

void InitPlatformLock(Lock* lock) { InitializeCriticalSection(Section(lock)); }
void DeletePlatformLock(Lock* lock) { DeleteCriticalSection(Section(lock)); }
void EnterPlatformLock(Lock* lock) { EnterCriticalSection(Section(lock)); }
void LeavePlatformLock(Lock* lock) { LeaveCriticalSection(Section(lock)); }

namespace {
unsigned __stdcall RunThread(void* parameter) { return RunThreadStartBlock(parameter); }

uint32_t SystemTickCount() { return GetTickCount(); }

uint64_t SystemPreciseTick() {
    LARGE_INTEGER frequency;
    LARGE_INTEGER counter;
    QueryPerformanceFrequency(&frequency);
    QueryPerformanceCounter(&counter);
    const uint64_t perSecond = static_cast<uint64_t>(frequency.QuadPart);
    const uint64_t count = static_cast<uint64_t>(counter.QuadPart);
    return count / perSecond * 1000000u + count % perSecond * 1000000u / perSecond;
}

void SystemSleep(uint32_t milliseconds) { Sleep(milliseconds); }

// Seconds since 1970 from the system time itself: the C library's _time64 also consults the
// time zone, which under Wine is a file status check per call, and the peer registry reads this
// clock for every datagram the server admits.
int64_t SystemWallClock() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const int64_t ticks =
        static_cast<int64_t>((static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime);
    return (ticks - UNIX_EPOCH_FILETIME) / (FILETIME_TICKS_PER_MS * MS_PER_SECOND);
}

int64_t SystemReadClock() {
    SYSTEMTIME systemTime;
    FILETIME fileTime;
    GetSystemTime(&systemTime);
    SystemTimeToFileTime(&systemTime, &fileTime);
    return static_cast<int64_t>((static_cast<uint64_t>(fileTime.dwHighDateTime) << 32) | fileTime.dwLowDateTime);
}

void SystemWriteClock(int64_t value) {
    FILETIME fileTime;
    SYSTEMTIME systemTime;
    fileTime.dwLowDateTime = static_cast<DWORD>(static_cast<uint64_t>(value));
    fileTime.dwHighDateTime = static_cast<DWORD>(static_cast<uint64_t>(value) >> 32);
    // Failures (no privilege, a value out of range) leave the clock as it is: nobody could act
    // on them here, and the next exchange tries again.
    FileTimeToSystemTime(&fileTime, &systemTime);
    SetSystemTime(&systemTime);
}

void SystemSeedRandom(uint32_t seed) { srand(seed); }

int32_t SystemNextRandom() { return rand(); }

int32_t SystemSleepUnlessWoken(Wakeup* wakeup, uint32_t milliseconds);
// The joinable threads, defined below beside the thread type.
int32_t SystemStartJoinableThread(ThreadFunction function, uint64_t argument, ThreadHandle* handle);
void SystemJoinThread(ThreadHandle handle);
}  // namespace

const PlatformDriver systemDriver = {
    SystemTickCount,  SystemPreciseTick, SystemSleep,      SystemWallClock,       SystemReadClock, SystemWriteClock,
    SystemSeedRandom, SystemNextRandom, SystemSleepUnlessWoken, SystemStartJoinableThread, SystemJoinThread,
};

// A manual-reset event: once signalled, every later wait returns at once.
struct Wakeup {
    UniqueKernelHandle event;
};

struct JoinableThread {
    UniqueKernelHandle thread;
};

Wakeup* CreateWakeup() {
    UniqueKernelHandle event(CreateEventA(nullptr, TRUE, FALSE, nullptr));
    if (!event.Valid()) {
        return nullptr;
    }
    Wakeup* wakeup = new (std::nothrow) Wakeup;
    if (wakeup != nullptr) {
        wakeup->event.Reset(event.Release());
    }
    return wakeup;
}

void DestroyWakeup(Wakeup* wakeup) { delete wakeup; }

void SignalWakeup(Wakeup* wakeup) {
    if (wakeup != nullptr) {
        SetEvent(wakeup->event.Get());
    }
}

int32_t WakeupSignalled(Wakeup* wakeup) {
    if (wakeup == nullptr) {
        return 0;
    }
    return WaitForSingleObject(wakeup->event.Get(), 0) == WAIT_OBJECT_0 ? 1 : 0;
}

namespace {
int32_t SystemSleepUnlessWoken(Wakeup* wakeup, uint32_t milliseconds) {
    return WaitForSingleObject(wakeup->event.Get(), milliseconds) == WAIT_OBJECT_0 ? 1 : 0;
}
}  // namespace

namespace {
// The new thread's handle, or null when it could not be created.
HANDLE CreatePlatformThread(ThreadFunction function, uint64_t argument) {
    ThreadStartBlock* block = NewThreadStartBlock(function, argument);
    if (block == nullptr) {
        return nullptr;
    }
    const uintptr_t handle = _beginthreadex(nullptr, 0, RunThread, block, 0, nullptr);
    if (handle == 0) {
        FreeThreadStartBlock(block);
        return nullptr;
    }
    return reinterpret_cast<HANDLE>(handle);
}
}  // namespace

int32_t StartThread(ThreadFunction function, uint64_t argument) {
    const UniqueKernelHandle thread(CreatePlatformThread(function, argument));  // closed: nobody joins it
    return thread.Valid() ? 1 : 0;
}

namespace {
int32_t SystemStartJoinableThread(ThreadFunction function, uint64_t argument, ThreadHandle* handle) {
    JoinableThread* joinable = new (std::nothrow) JoinableThread;
    if (joinable == nullptr) {
        return 0;
    }
    joinable->thread.Reset(CreatePlatformThread(function, argument));
    if (!joinable->thread.Valid()) {
        delete joinable;
        return 0;
    }
    *handle = joinable;
    return 1;
}

void SystemJoinThread(ThreadHandle handle) {
    WaitForSingleObject(handle->thread.Get(), INFINITE);
    delete handle;
}
}  // namespace

void SetCurrentThreadPriority(int32_t priority) {
    SetThreadPriority(GetCurrentThread(), priority);
}
