// The simulated machine's clocks. True time is simNow; the tick counters follow it (they start
// close to a wrap of the 32-bit millisecond count); the system clock is a model that drifts
// against true time and is moved by the client's settings, and the wall clock (_time64) is read
// from it. Sleeps end a little late, as an operating system's do.
#pragma once

#include <cstdint>

#include "sim/scheduler.h"

const int64_t FILETIME_UNIX_EPOCH = 116444736000000000LL;  // 1970-01-01 in 100 ns ticks since 1601
const int64_t NS_PER_FILETIME_TICK = 100;
// A sleep or timed wait ends up to this late (a timer's resolution and the scheduler's delay).
const SimTime SLEEP_LATENCY_MAX = 1 * NS_PER_MS;

// A clock that runs at (1 + drift) against true time from a base: the system clock, and each
// upstream server's clock. Unix nanoseconds.
struct ClockModel {
    int64_t baseUnixNs;  // the reading at baseAt
    SimTime baseAt;
    int64_t driftPpb;    // parts per billion fast (negative: slow)
};

int64_t ReadClockModel(const ClockModel* clock, SimTime at);
// Sets the reading now, keeping the drift.
void SetClockModel(ClockModel* clock, int64_t unixNs, SimTime at);
// Changes the drift from now on, keeping the reading continuous.
void SetClockDrift(ClockModel* clock, int64_t driftPpb, SimTime at);

extern ClockModel systemClock;
extern uint32_t tickAtStartMs;  // the tick count at simNow 0

// The machine's time as the platform driver returns it.
uint32_t MachineTickCount();
uint64_t MachinePreciseTickUs();
// The system clock as a FILETIME of whole milliseconds (GetSystemTime's resolution).
int64_t MachineFileTime();
int64_t MachineWallSeconds();  // _time64: whole seconds since 1970
// A delay as a sleep of milliseconds takes it: the time asked plus the scheduler's latency.
SimTime SleepDuration(uint32_t milliseconds);

int64_t UnixNsToFileTime(int64_t unixNs);
// A clock's reading as a 32.32 NTP stamp: seconds since 1900 modulo 2^32 (the era wraps on
// 2036-02-07), as every server sends it.
uint64_t NtpStampOf(int64_t unixNs);
int64_t FileTimeToUnixNs(int64_t fileTime);
