// The system's clock writer under Wine, which never moves the host clock but accepts a time within
// half a second of it and refuses one further off with 1314: a field swapped or mis-scaled shows.
#include <windows.h>

#include <gtest/gtest.h>

#include "runtime/platform.h"

TEST(ClockWriter, HandsOverWhatTheReaderGaveToTheMillisecond) {
    for (const int64_t offsetMs : {0LL, 300LL, -300LL, 2000LL, -2000LL, 86400000LL, 31LL * 86400000}) {
        SetLastError(0);
        systemDriver.writeSystemClock(systemDriver.readSystemClock() + offsetMs * 10000);  // in 100 ns ticks
        EXPECT_EQ(GetLastError(), offsetMs > -500 && offsetMs < 500 ? 0u : 1314u) << offsetMs << " ms";
    }
}
