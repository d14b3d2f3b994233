// Virtual time: clocks that move only when a thread sleeps or the test advances them. Clock
// settings are recorded (and move the virtual clock), never made.
#pragma once

#include <cstdint>
#include <functional>
#include <vector>

// 2026-01-01 00:00:00 UTC
const int64_t VIRTUAL_START_FILETIME = 134116992000000000LL;

void AdvanceVirtualTime(uint64_t milliseconds);
uint64_t VirtualElapsedMs();

std::vector<int64_t> RecordedClockSettings();

// NextRandom returns these in order, then 0.
void QueueRandomValues(const std::vector<int32_t>& values);
uint32_t RecordedRandomSeed();

// While on, a sleep on a wakeup (the socket library's ageing thread) lasts until it is signalled
// and moves no virtual time.
void HoldWakeableSleeps(bool hold);

// The system's clocks; clock settings do nothing.
void InstallGuardDriver();

class ScopedVirtualTime {
public:
    explicit ScopedVirtualTime(int64_t startFileTime = VIRTUAL_START_FILETIME, uint32_t startTick = 1000000);
    ~ScopedVirtualTime();
    ScopedVirtualTime(const ScopedVirtualTime&) = delete;
    ScopedVirtualTime& operator=(const ScopedVirtualTime&) = delete;
};

// Called on the sleeping thread before the clock advances; it may block to hold that thread.
class ScopedSleepHook {
public:
    explicit ScopedSleepHook(std::function<void(uint32_t)> hook);
    ~ScopedSleepHook();
    ScopedSleepHook(const ScopedSleepHook&) = delete;
    ScopedSleepHook& operator=(const ScopedSleepHook&) = delete;
};
