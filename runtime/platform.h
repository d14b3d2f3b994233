// The platform driver: the one table through which every read of a clock, every sleep and every
// random number passes, and through which the system clock is set. The default entries call the
// operating system; tests install a driver of virtual time whose clock writer only records.
//
// Every other file reaches these capabilities through the choke points below, never directly.
#pragma once

#include <cstdint>

struct Wakeup;
struct JoinableThread;
typedef uint32_t (*ThreadFunction)(uint64_t argument);

struct PlatformDriver {
    uint32_t (*tickCount)();                        // GetTickCount: ms since system start, wraps
    // Microseconds since system start, from the platform's fine monotonic counter
    // (QueryPerformanceCounter): the tick count moves in steps of 10-16 ms on Windows (and about
    // 13 under Wine), too coarse to time a round trip of a millisecond or less.
    uint64_t (*preciseTickUs)();
    void (*sleep)(uint32_t milliseconds);           // Sleep
    int64_t (*wallClock)();                         // _time64: seconds since 1970-01-01 UTC
    int64_t (*readSystemClock)();                   // UTC as a FILETIME count (100 ns since 1601), whole ms
    void (*writeSystemClock)(int64_t fileTime);     // sets the UTC system clock, whole ms
    void (*seedRandom)(uint32_t seed);              // srand
    int32_t (*nextRandom)();                        // rand: 0..32767
    // Sleeps up to milliseconds, returning at once with 1 when the wakeup is (or becomes)
    // signalled; 0 when the time ran out. WaitForSingleObject on an event.
    int32_t (*sleepUnlessWoken)(Wakeup* wakeup, uint32_t milliseconds);
    // Starts function(argument) on a thread that joinThread waits for: 1 and *thread when it was
    // created, else 0 (_beginthreadex; WaitForSingleObject and CloseHandle). Through the driver
    // so that what decides time also decides which threads run, and a failed start can be tested.
    int32_t (*startJoinableThread)(ThreadFunction function, uint64_t argument, JoinableThread** thread);
    void (*joinThread)(JoinableThread* thread);
};

// The operating system's own driver (runtime_win32.cpp or runtime_posix.cpp).
extern const PlatformDriver systemDriver;


// The choke points.
uint32_t ReadTickCount();
uint64_t ReadPreciseTick();  // microseconds
int64_t ReadSystemFileTime();
void WriteSystemFileTime(int64_t fileTime);
void SeedRandom(uint32_t seed);
int32_t NextRandom();

// FILETIME of 1970-01-01 00:00:00 UTC.
const int64_t UNIX_EPOCH_FILETIME = 116444736000000000LL;
const int64_t FILETIME_TICKS_PER_MS = 10000;
