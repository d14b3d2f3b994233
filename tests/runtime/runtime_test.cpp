// Locks, the TickTimer, the thread starter and the system driver's clocks and random sequence.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>
#include <vector>

#include "runtime/platform.h"
#include "runtime/runtime.h"

namespace {
const uint32_t MINUTE_MS = 60000;
const uint32_t WRAP_START = 0u - 30000u;  // the tick count wraps 30 s after this

std::atomic<uint64_t> delivered{0};  // a thread function has no captures

void StartThrowingThreadThenWait() {
    StartThread([](uint64_t) -> uint32_t { throw 42; }, 0);
    std::this_thread::sleep_for(std::chrono::seconds(10));
    std::exit(0);  // only if the exception did not end the process first
}
}  // namespace

// The pure rule: expired once the interval has passed, but a millisecond late across the wrap.
TEST(TickTimer, ExpiresOnceItsIntervalHasPassed) {
    const struct {
        const char* label;
        TickTimer timer;  // start, interval, armed, context
        uint32_t now;
        int32_t expired;
    } cases[] = {
        {"unarmed, long after", {1000, MINUTE_MS, 0, 0}, 1000 + 5 * MINUTE_MS, 0},
        {"a millisecond before the interval", {1000, MINUTE_MS, 1, 0}, 1000 + MINUTE_MS - 1, 0},
        {"at the interval", {1000, MINUTE_MS, 1, 0}, 1000 + MINUTE_MS, 1},
        {"across the wrap, at the interval", {WRAP_START, MINUTE_MS, 1, 0}, WRAP_START + MINUTE_MS, 0},
        {"across the wrap, a millisecond after", {WRAP_START, MINUTE_MS, 1, 0}, WRAP_START + MINUTE_MS + 1, 1},
        {"interval 0", {1000, 0, 1, 0}, 1000, 1},
    };
    for (const auto& c : cases) EXPECT_EQ(c.expired, TimerExpiredAt(&c.timer, c.now)) << c.label;
}

// A missing timer reads as expired.
TEST(Runtime, StatusIsZeroForAnObjectAndOneForNull) {
    Lock lock;
    TickTimer timer = {};
    const struct {
        const char* call;
        int32_t status;
        int32_t expected;
    } calls[] = {
        {"InitLock", InitLock(&lock), 0},
        {"EnterLock", EnterLock(&lock), 0},
        {"LeaveLock", LeaveLock(&lock), 0},
        {"DeleteLock", DeleteLock(&lock), 0},
        {"StartTimer", StartTimer(&timer, 5), 0},
        {"RestartTimer", RestartTimer(&timer), 0},
        {"ReleaseTimer", ReleaseTimer(&timer), 0},
        {"InitLock(null)", InitLock(nullptr), 1},
        {"EnterLock(null)", EnterLock(nullptr), 1},
        {"LeaveLock(null)", LeaveLock(nullptr), 1},
        {"DeleteLock(null)", DeleteLock(nullptr), 1},
        {"StartTimer(null)", StartTimer(nullptr, 5), 1},
        {"RestartTimer(null)", RestartTimer(nullptr), 1},
        {"TimerExpired(null)", TimerExpired(nullptr), 1},
        {"ReleaseTimer(null)", ReleaseTimer(nullptr), 1},
    };
    for (const auto& c : calls) EXPECT_EQ(c.expected, c.status) << c.call;
}

TEST(Threads, StartRunsTheFunctionWithTheWholeArgument) {
    delivered = 0;
    const int32_t started = StartThread([](uint64_t argument) -> uint32_t {
        delivered = argument;
        return 0;
    }, 0x8123456789ABCDEFULL);
    for (int i = 0; i < 500 && delivered.load() == 0; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_EQ(1, started);
    EXPECT_EQ(0x8123456789ABCDEFULL, delivered.load());
}

TEST(ThreadsDeathTest, AnExceptionEscapingAThreadEndsTheProcessWithStatusOne) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(StartThrowingThreadThenWait(), testing::ExitedWithCode(1), "");
}

// Through the system's own driver: a sleep nobody wakes runs out and says so (signalled after 2 s
// at the latest, so that one which would not run out ends too).
TEST(SystemDriver, ASleepNobodyWakesRunsOut) {
    Wakeup* wakeup = CreateWakeup();
    std::atomic<int32_t> woken{-1};
    std::thread sleeper([&] { woken = systemDriver.sleepUnlessWoken(wakeup, 20); });
    for (int i = 0; i < 200 && woken.load() == -1; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    SignalWakeup(wakeup);
    sleeper.join();
    DestroyWakeup(wakeup);
    EXPECT_EQ(0, woken.load());
}

TEST(SystemDriver, ASignalledWakeupEndsASleepAtOnce) {
    Wakeup* wakeup = CreateWakeup();
    SignalWakeup(wakeup);
    const int32_t woken = systemDriver.sleepUnlessWoken(wakeup, 60000);
    DestroyWakeup(wakeup);
    EXPECT_EQ(1, woken);
}

// The same sequence on every build, so that above 32767 the client's start delay stays 60..119 s.
TEST(SystemDriver, RandomSequenceIsTheSameOnEveryBuild) {
    systemDriver.seedRandom(1);
    std::vector<int32_t> drawn;
    for (int i = 0; i < 8; ++i) drawn.push_back(systemDriver.nextRandom());
    EXPECT_EQ((std::vector<int32_t>{41, 18467, 6334, 26500, 19169, 15724, 11478, 29358}), drawn);
}
