// Locks, the TickTimer with its two quirks, the thread starter and the driver choke points.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "runtime/platform.h"
#include "runtime/runtime.h"
#include "tests/support/virtual_time.h"

TEST(Locks, AreRecursiveForTheOwnerAndExcludeOthers) {
    Lock lock;
    ASSERT_EQ(0, InitLock(&lock));
    ASSERT_EQ(0, EnterLock(&lock));
    ASSERT_EQ(0, EnterLock(&lock));  // would deadlock if not recursive
    std::atomic<int> entered{0};
    std::thread other([&] {
        EnterLock(&lock);
        entered = 1;
        LeaveLock(&lock);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(0, entered.load());
    EXPECT_EQ(0, LeaveLock(&lock));
    EXPECT_EQ(0, entered.load());  // still held once
    EXPECT_EQ(0, LeaveLock(&lock));
    other.join();
    EXPECT_EQ(1, entered.load());
    EXPECT_EQ(0, DeleteLock(&lock));
}

TEST(Runtime, NullLocksAndTimersAreRefusedAndUnarmedTimersNeverFire) {
    EXPECT_EQ(1, InitLock(nullptr));
    EXPECT_EQ(1, DeleteLock(nullptr));
    EXPECT_EQ(1, EnterLock(nullptr));
    EXPECT_EQ(1, LeaveLock(nullptr));
    EXPECT_EQ(1, StartTimer(nullptr, 5));
    EXPECT_EQ(1, RestartTimer(nullptr));
    EXPECT_EQ(1, TimerExpired(nullptr));  // a missing timer reads as expired
    EXPECT_EQ(1, TimerExpiredAt(nullptr, 0));
    EXPECT_EQ(1, ReleaseTimer(nullptr));

    TickTimer unarmed = {0, 0, 0, 0};
    EXPECT_EQ(0, TimerExpired(&unarmed));
    EXPECT_EQ(0, TimerExpiredAt(&unarmed, 0xFFFFFFFFu));
    EXPECT_EQ(0, ReleaseTimer(&unarmed));
}

TEST(TickTimer, WrapCostsOneExtraMillisecond) {
    TickTimer plain = {0x1000u, 0x200u, 1, 0};
    EXPECT_EQ(0, TimerExpiredAt(&plain, 0x11FFu));
    EXPECT_EQ(1, TimerExpiredAt(&plain, 0x1200u));  // no wrap, no extra millisecond

    TickTimer timer = {0xFFFFFF00u, 0x200u, 1, 0};
    EXPECT_EQ(0, TimerExpiredAt(&timer, 0xFFFFFFFFu));
    EXPECT_EQ(0, TimerExpiredAt(&timer, 0x00000100u));  // modular 0x200, minus one for the wrap
    EXPECT_EQ(1, TimerExpiredAt(&timer, 0x00000101u));
}

TEST(TickTimer, StartRestartAndExpiryInVirtualTime) {
    InstallVirtualTime(VIRTUAL_START_FILETIME, 0u - 30000u);  // wraps half-way through
    TickTimer timer = {0, 0, 0, 0};
    ASSERT_EQ(0, StartTimer(&timer, 60000));
    EXPECT_EQ(0, TimerExpired(&timer));  // not in the millisecond it started
    AdvanceVirtualTime(60000);  // across the wrap: fires a millisecond late
    EXPECT_EQ(0, TimerExpired(&timer));
    AdvanceVirtualTime(1);
    EXPECT_EQ(1, TimerExpired(&timer));
    AdvanceVirtualTime(100000);
    EXPECT_EQ(1, TimerExpired(&timer));  // never disarms itself

    ASSERT_EQ(0, RestartTimer(&timer));  // the same interval again, from now
    EXPECT_EQ(0, TimerExpired(&timer));
    AdvanceVirtualTime(59999);
    EXPECT_EQ(0, TimerExpired(&timer));
    AdvanceVirtualTime(1);
    EXPECT_EQ(1, TimerExpired(&timer));

    ASSERT_EQ(0, StartTimer(&timer, 0));
    EXPECT_EQ(1, TimerExpired(&timer));  // interval 0 fires on the first test
    RemoveVirtualTime();
}

namespace {
std::atomic<uint64_t> deliveredArgument{0};
std::atomic<int> threadsRun{0};

uint32_t RecordArgument(uint64_t argument) {
    deliveredArgument = argument;
    threadsRun.fetch_add(1);
    return 7;
}
}  // namespace

TEST(Threads, StartDeliversTheWholeArgument) {
    EXPECT_EQ(0, StartThread(nullptr, 1));
    threadsRun = 0;
    ASSERT_EQ(1, StartThread(RecordArgument, 0x8123456789ABCDEFULL));
    for (int i = 0; i < 500 && threadsRun.load() == 0; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    EXPECT_EQ(1, threadsRun.load());
    EXPECT_EQ(0x8123456789ABCDEFULL, deliveredArgument.load());
}

namespace {
uint32_t Throw(uint64_t) { throw 42; }
}  // namespace

TEST(ThreadsDeathTest, EscapingExceptionEndsTheProcessWithStatusOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            StartThread(Throw, 0);
            std::this_thread::sleep_for(std::chrono::seconds(10));
            std::exit(0);
        },
        testing::ExitedWithCode(1), "");
}

TEST(Driver, SleepsAndClocksGoThroughTheInstalledDriver) {
    InstallVirtualTime();
    const uint32_t tick = ReadTickCount();
    const int64_t wall = ReadWallClock(nullptr);
    EXPECT_EQ(0, SleepFor(86400u * 1000u));  // a day, at once
    EXPECT_EQ(0, PauseBriefly());
    EXPECT_EQ(86400010u, VirtualElapsedMs());
    EXPECT_EQ(tick + 86400010u, ReadTickCount());
    int64_t stored = 0;
    EXPECT_EQ(wall + 86400, ReadWallClock(&stored));
    EXPECT_EQ(wall + 86400, stored);

    SeedRandom(1234);
    QueueRandomValues({5, 32767});
    EXPECT_EQ(1234u, RecordedRandomSeed());
    EXPECT_EQ(5, NextRandom());
    EXPECT_EQ(32767, NextRandom());
    RemoveVirtualTime();
}

TEST(Driver, SystemRandomIsTheWindowsRuntimeSequenceOnEveryBuild) {
    // Values above 32767 would throw the client's start delay out of 60..119 s.
    systemDriver.seedRandom(1);
    for (const int32_t expected : {41, 18467, 6334, 26500, 19169, 15724, 11478, 29358}) {
        EXPECT_EQ(expected, systemDriver.nextRandom());
    }
}

TEST(Driver, TheRealClockIsNeverSetByATest) {
    const uint32_t before = GuardedClockWrites();
    WriteSystemFileTime(UNIX_EPOCH_FILETIME);
    EXPECT_EQ(before + 1, GuardedClockWrites());
    // The system clock still reads as now, not as 1970.
    EXPECT_GT(ReadSystemFileTime(), UNIX_EPOCH_FILETIME + 50LL * 365 * 86400 * 10000000);
}
