// The operating system's clock writer under Wine, which never moves the host clock: it accepts a
// time within half a second of its clock and refuses anything further off with 1314. A writer
// that swapped, mis-scaled or dropped a field of the time it hands over is refused.
#include <windows.h>

#include <gtest/gtest.h>

#include "runtime/platform.h"

TEST(ClockWriter, HandsOverTheTimeToTheMillisecondAndReadsBackWhatItWouldWrite) {
    const int64_t TICKS_PER_MS = 10000;
    // Within Wine's half second: accepted; seconds, a day or a month off: refused.
    for (const int64_t offsetMs : {0LL, 300LL, -300LL, 2000LL, -2000LL, 86400000LL, 31LL * 86400000}) {
        FILETIME now;
        GetSystemTimeAsFileTime(&now);
        SetLastError(0);
        const uint64_t ticks = (static_cast<uint64_t>(now.dwHighDateTime) << 32) | now.dwLowDateTime;
        systemDriver.writeSystemClock(static_cast<int64_t>(ticks) + offsetMs * TICKS_PER_MS);
        EXPECT_EQ(GetLastError(), offsetMs > -500 && offsetMs < 500 ? 0u : 1314u) << offsetMs << " ms";
    }
    SetLastError(0);
    systemDriver.writeSystemClock(systemDriver.readSystemClock());
    EXPECT_EQ(GetLastError(), 0u);
}
