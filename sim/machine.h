// The simulated machine's clocks. True time is simNow. The system timer interrupts every
// TIMER_TICK: the tick count moves only then (by 15 or 16 ms at Windows' default), and every
// sleep and timed wait that runs its time out ends on one of its interrupts; the fine counter
// runs at true time. Both
// counters start close to a wrap of the 32-bit millisecond count. The system clock is a model
// that drifts against true time and is moved by the client's settings, and the wall clock
// (_time64) is read from it.
#pragma once

#include <cstdint>

#include "sim/scheduler.h"

const int64_t FILETIME_UNIX_EPOCH = 116444736000000000LL;  // 1970-01-01 in 100 ns ticks since 1601
const int64_t NS_PER_FILETIME_TICK = 100;
// The system timer's period: 64 interrupts a second, Windows' default. A run on a timer raised
// to 1 ms builds with -DSIM_TIMER_TICK_US=1000.
#ifndef SIM_TIMER_TICK_US
#define SIM_TIMER_TICK_US 15625
#endif
const SimTime TIMER_TICK = SIM_TIMER_TICK_US * NS_PER_US;
// A sleep or timed wait ends on the first interrupt after its time is up: up to a tick late.
const SimTime SLEEP_LATENCY_MAX = TIMER_TICK;
// A reading of the tick count is the count of the last interrupt in whole milliseconds: up to a
// tick and a millisecond behind the fine counter.
const SimTime TICK_COUNT_LAG_MAX = TIMER_TICK + NS_PER_MS;

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
extern SimTime timerPhase;      // 0 .. TIMER_TICK - 1: the timer interrupts at k * TIMER_TICK - timerPhase

// The machine's time as the platform driver returns it.
uint32_t MachineTickCount();
uint64_t MachinePreciseTickUs();
// The system clock as a FILETIME of whole milliseconds (GetSystemTime's resolution).
int64_t MachineFileTime();
int64_t MachineWallSeconds();  // _time64: whole seconds since 1970
// How long a sleep or timed wait of milliseconds takes when nothing ends it sooner: to the first
// interrupt after the time is up (the asking thread runs after the interrupt that woke it, so a
// wait asked at one ends a tick late when its time is whole ticks). A wait of 0 returns at once.
SimTime WaitDuration(uint32_t milliseconds);

int64_t UnixNsToFileTime(int64_t unixNs);
// A clock's reading as a 32.32 NTP stamp: seconds since 1900 modulo 2^32 (the era wraps on
// 2036-02-07), as every server sends it.
uint64_t NtpStampOf(int64_t unixNs);
int64_t FileTimeToUnixNs(int64_t fileTime);
