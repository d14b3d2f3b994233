// The operating system's clock writer under Wine, which never moves the host clock: it accepts a
// time within half a second of its clock and refuses anything further off with 1314. A writer
// that swapped, mis-scaled or dropped a field of the time it hands over is refused.
#include <windows.h>

#include <gtest/gtest.h>

#include "runtime/platform.h"

namespace {
const int64_t TICKS_PER_MS = 10000;

int64_t Now() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return static_cast<int64_t>((static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime);
}

DWORD WriteAndReadError(int64_t offsetMs) {
    SetLastError(0);
    systemDriver.writeSystemClock(Now() + offsetMs * TICKS_PER_MS);
    return GetLastError();
}

TEST(ClockWriter, HandsOverTheTimeToTheMillisecond) {
    struct Case {
        int64_t offsetMs;
        DWORD error;
    };
    const Case cases[] = {
        {0, 0}, {300, 0}, {-300, 0},                   // within Wine's half second: accepted
        {2000, 1314}, {-2000, 1314},                   // seconds off
        {86400000, 1314}, {31LL * 86400000, 1314},     // a day, a month
    };
    for (const Case& c : cases) {
        EXPECT_EQ(WriteAndReadError(c.offsetMs), c.error) << c.offsetMs << " ms";
    }
}

TEST(ClockWriter, ReadsBackTheClockItWouldWrite) {
    // Writing what the reader gives is always within the half second.
    SetLastError(0);
    systemDriver.writeSystemClock(systemDriver.readSystemClock());
    EXPECT_EQ(GetLastError(), 0u);
}
}  // namespace
