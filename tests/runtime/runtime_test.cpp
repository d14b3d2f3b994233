// Locks, the TickTimer with its two quirks, the thread starter and the driver choke points.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "runtime/platform.h"
#include "runtime/runtime.h"
#include "tests/support/virtual_time.h"

TEST(VirtualTime, TimersStartRestartAndExpireAcrossTheWrapAndTheDriverCarriesClocksAndRandom) {
    InstallVirtualTime(VIRTUAL_START_FILETIME, 0u - 30000u);  // wraps half-way through
    const auto expiredAfter = [](TickTimer* t, uint32_t ms) { AdvanceVirtualTime(ms); return TimerExpired(t); };
    TickTimer timer = {0, 0, 0, 0};
    EXPECT_EQ(0, TimerExpired(&timer));  // unarmed: never fires
    ASSERT_EQ(0, StartTimer(&timer, 60000));
    EXPECT_EQ(0, expiredAfter(&timer, 0));  // not in the millisecond it started
    EXPECT_EQ(0, expiredAfter(&timer, 60000));  // across the wrap: fires a millisecond late
    EXPECT_EQ(1, expiredAfter(&timer, 1));
    TickTimer unarmed = {0, 60000, 0, 0};
    ASSERT_EQ(0, RestartTimer(&unarmed));  // arms it, with its interval, from now
    EXPECT_EQ(0, expiredAfter(&unarmed, 59999));
    EXPECT_EQ(1, expiredAfter(&unarmed, 1));
    ASSERT_EQ(0, StartTimer(&timer, 0));
    EXPECT_EQ(1, TimerExpired(&timer));  // interval 0 fires on the first test
    EXPECT_EQ(0, ReleaseTimer(&timer));
    // Null is refused; a missing timer also reads as expired.
    const int32_t statuses[] = {InitLock(nullptr),     DeleteLock(nullptr),    EnterLock(nullptr),
                                LeaveLock(nullptr),    StartTimer(nullptr, 5), RestartTimer(nullptr),
                                TimerExpired(nullptr), ReleaseTimer(nullptr)};
    for (int32_t status : statuses) EXPECT_EQ(1, status);

    const uint32_t tick = ReadTickCount();
    const int64_t wall = ReadWallClock(nullptr);
    EXPECT_EQ(0, SleepFor(86400u * 1000u));  // a day, at once
    EXPECT_EQ(0, PauseBriefly());
    EXPECT_EQ(tick + 86400010u, ReadTickCount());
    int64_t stored = 0;
    EXPECT_EQ(wall + 86400, ReadWallClock(&stored));
    EXPECT_EQ(wall + 86400, stored);
    WriteSystemFileTime(UNIX_EPOCH_FILETIME);
    EXPECT_EQ(RecordedClockSettings(), std::vector<int64_t>{UNIX_EPOCH_FILETIME});
    SeedRandom(1234);
    EXPECT_EQ(1234u, RecordedRandomSeed());
    RemoveVirtualTime();

    // The system's own clocks move with a real sleep (and both by about the same amount).
    const std::pair<uint32_t, uint64_t> before{systemDriver.tickCount(), systemDriver.preciseTickUs()};
    systemDriver.sleep(30);
    EXPECT_NEAR(systemDriver.tickCount() - before.first, (systemDriver.preciseTickUs() - before.second) / 1000, 50);
    EXPECT_GE(systemDriver.preciseTickUs() - before.second, 30000u);

    // The system's own sequence on every build: above 32767 the client's start delay leaves 60..119 s.
    systemDriver.seedRandom(1);
    for (const int32_t expected : {41, 18467, 6334, 26500, 19169, 15724, 11478, 29358}) {
        EXPECT_EQ(expected, systemDriver.nextRandom());
    }
}

TEST(ThreadsDeathTest, LocksAreRecursiveStartDeliversTheWholeArgumentAndAnEscapingExceptionExitsWithOne) {
    Lock lock;
    ASSERT_EQ(0, InitLock(&lock));
    ASSERT_EQ(0, EnterLock(&lock));
    ASSERT_EQ(0, EnterLock(&lock));  // would deadlock if not recursive
    static std::atomic<uint64_t> delivered{0};  // static: read by a thread function without captures
    std::thread other([&] { LockHold hold(&lock); delivered = 1; });
    EXPECT_EQ(0, LeaveLock(&lock));
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0u, delivered.load());  // still held once
    EXPECT_EQ(0, LeaveLock(&lock));
    other.join();
    EXPECT_EQ(0, DeleteLock(&lock));

    delivered = 0;
    EXPECT_EQ(0, StartThread(nullptr, 1));
    const ThreadFunction record = [](uint64_t argument) -> uint32_t { return (delivered = argument) != 0; };
    ASSERT_EQ(1, StartThread(record, 0x8123456789ABCDEFULL));
    for (int i = 0; i < 500 && delivered.load() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(0x8123456789ABCDEFULL, delivered.load());
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const ThreadFunction throwing = [](uint64_t) -> uint32_t { throw 42; };
    EXPECT_EXIT((StartThread(throwing, 0), std::this_thread::sleep_for(std::chrono::seconds(10)), std::exit(0)),
                testing::ExitedWithCode(1), "");
}
