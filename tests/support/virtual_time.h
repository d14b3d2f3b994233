// Virtual time for tests: a platform driver whose tick count, wall clock and system clock move
// only when a thread sleeps or the test advances them, so that code which sleeps for a day runs
// in milliseconds. Clock settings are recorded (and move the virtual system clock), never made.
#pragma once

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

// 2026-01-01 00:00:00 UTC as a FILETIME.
const int64_t VIRTUAL_START_FILETIME = 134116992000000000LL;

// Installs the virtual driver. Elapsed time starts at 0, the tick count at startTick.
void InstallVirtualTime(int64_t startFileTime = VIRTUAL_START_FILETIME, uint32_t startTick = 1000000);
// Restores the guard driver of the test main.
void RemoveVirtualTime();

void AdvanceVirtualTime(uint64_t milliseconds);
uint64_t VirtualElapsedMs();

// Every value handed to the clock writer, in order.
std::vector<int64_t> RecordedClockSettings();

// NextRandom returns these in order, then 0. SeedRandom's argument is recorded.
void QueueRandomValues(const std::vector<int32_t>& values);
uint32_t RecordedRandomSeed();

// Called on the sleeping thread with the requested milliseconds before the clock advances; it
// may block to hold that thread at a point the test chooses. An empty function removes it.
void SetSleepHook(std::function<void(uint32_t)> hook);

// While on, a sleep on a wakeup (the socket library's ageing thread between its sweeps) lasts
// until its wakeup is signalled and moves no virtual time: the clocks then move only with the
// sleeps of the thread under test, as they would if that thread were the only one that waits for
// time to pass. Off again at InstallVirtualTime.
void HoldWakeableSleeps(bool hold);

// Reinstalls the guard driver: the operating system's clocks, a clock writer that does nothing.
void InstallGuardDriver();

// Virtual time for the life of the object, the guard driver again after it (also when an ASSERT
// ends the test early).
class ScopedVirtualTime {
public:
    explicit ScopedVirtualTime(int64_t startFileTime = VIRTUAL_START_FILETIME, uint32_t startTick = 1000000) {
        InstallVirtualTime(startFileTime, startTick);
    }
    ~ScopedVirtualTime() { RemoveVirtualTime(); }
    ScopedVirtualTime(const ScopedVirtualTime&) = delete;
    ScopedVirtualTime& operator=(const ScopedVirtualTime&) = delete;
};

// A sleep hook for the life of the object: a hook that blocks never outlives its test.
class ScopedSleepHook {
public:
    explicit ScopedSleepHook(std::function<void(uint32_t)> hook) { SetSleepHook(std::move(hook)); }
    ~ScopedSleepHook() { SetSleepHook({}); }
    ScopedSleepHook(const ScopedSleepHook&) = delete;
    ScopedSleepHook& operator=(const ScopedSleepHook&) = delete;
};
