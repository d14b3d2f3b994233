// The virtual-time and guard drivers of the test binaries.
#include "runtime/runtime_test_seams.h"
#include "tests/support/virtual_time.h"

#include <atomic>
#include <deque>
#include <chrono>
#include <mutex>
#include <thread>
#include <utility>

#include "runtime/platform.h"
#include "runtime/runtime.h"

namespace {
std::mutex stateMutex;
int64_t startFileTime = VIRTUAL_START_FILETIME;
uint32_t startTick = 0;
int64_t clockOffset = 0;  // FILETIME ticks added by clock settings
std::atomic<uint64_t> elapsedMs{0};
std::vector<int64_t> clockSettings;
std::deque<int32_t> randomValues;
uint32_t randomSeed = 0;
std::function<void(uint32_t)> sleepHook;
std::atomic<bool> holdWakeable{false};
const auto WAKEUP_POLL = std::chrono::milliseconds(1);

int64_t CurrentFileTime() {
    std::lock_guard<std::mutex> hold(stateMutex);
    return startFileTime + clockOffset + static_cast<int64_t>(elapsedMs.load()) * FILETIME_TICKS_PER_MS;
}

uint32_t VirtualTick() { return startTick + static_cast<uint32_t>(elapsedMs.load()); }

uint64_t VirtualPreciseTick() { return (static_cast<uint64_t>(startTick) + elapsedMs.load()) * 1000u; }

void RunSleepHook(uint32_t milliseconds) {
    std::function<void(uint32_t)> hook;
    {
        std::lock_guard<std::mutex> hold(stateMutex);
        hook = sleepHook;
    }
    if (hook) hook(milliseconds);
}

void VirtualSleep(uint32_t milliseconds) {
    RunSleepHook(milliseconds);
    elapsedMs.fetch_add(milliseconds);
}

// As a signalled event returns at once, a wakeup before or during the sleep lets no time pass.
int32_t VirtualSleepUnlessWoken(Wakeup* wakeup, uint32_t milliseconds) {
    if (WakeupSignalled(wakeup) != 0) return 1;
    if (holdWakeable.load()) {
        while (WakeupSignalled(wakeup) == 0) std::this_thread::sleep_for(WAKEUP_POLL);
        return 1;
    }
    RunSleepHook(milliseconds);
    if (WakeupSignalled(wakeup) != 0) return 1;
    elapsedMs.fetch_add(milliseconds);
    return 0;
}

int64_t VirtualWallClock() { return (CurrentFileTime() - UNIX_EPOCH_FILETIME) / (FILETIME_TICKS_PER_MS * 1000); }

int64_t VirtualReadClock() {
    const int64_t now = CurrentFileTime();
    return now - now % FILETIME_TICKS_PER_MS;  // the platform clock has whole milliseconds
}

void VirtualWriteClock(int64_t fileTime) {
    const int64_t now = CurrentFileTime();
    std::lock_guard<std::mutex> hold(stateMutex);
    clockSettings.push_back(fileTime);  // as handed to the platform
    clockOffset += fileTime - fileTime % FILETIME_TICKS_PER_MS - now;  // SetSystemTime keeps whole ms
}

void VirtualSeedRandom(uint32_t seed) {
    std::lock_guard<std::mutex> hold(stateMutex);
    randomSeed = seed;
}

int32_t VirtualNextRandom() {
    std::lock_guard<std::mutex> hold(stateMutex);
    if (randomValues.empty()) return 0;
    const int32_t value = randomValues.front();
    randomValues.pop_front();
    return value;
}

const PlatformDriver virtualDriver = {
    VirtualTick,       VirtualPreciseTick, VirtualSleep,      VirtualWallClock,        VirtualReadClock, VirtualWriteClock,
    VirtualSeedRandom, VirtualNextRandom, VirtualSleepUnlessWoken, systemDriver.startJoinableThread,
    systemDriver.joinThread,
};

const PlatformDriver guardDriver = [] {
    PlatformDriver guard = systemDriver;
    guard.writeSystemClock = [](int64_t) {};
    return guard;
}();
}  // namespace

ScopedVirtualTime::ScopedVirtualTime(int64_t fileTime, uint32_t tick) {
    {
        std::lock_guard<std::mutex> hold(stateMutex);
        startFileTime = fileTime;
        startTick = tick;
        clockOffset = 0;
        randomSeed = 0;
        clockSettings.clear();
        randomValues.clear();
        sleepHook = nullptr;
    }
    elapsedMs.store(0);
    holdWakeable.store(false);
    InstallPlatformDriver(&virtualDriver);
}

ScopedVirtualTime::~ScopedVirtualTime() {
    InstallGuardDriver();
    std::lock_guard<std::mutex> hold(stateMutex);
    sleepHook = nullptr;
}

void AdvanceVirtualTime(uint64_t milliseconds) { elapsedMs.fetch_add(milliseconds); }

uint64_t VirtualElapsedMs() { return elapsedMs.load(); }

std::vector<int64_t> RecordedClockSettings() {
    std::lock_guard<std::mutex> hold(stateMutex);
    return clockSettings;
}

void QueueRandomValues(const std::vector<int32_t>& values) {
    std::lock_guard<std::mutex> hold(stateMutex);
    randomValues.assign(values.begin(), values.end());
}

uint32_t RecordedRandomSeed() {
    std::lock_guard<std::mutex> hold(stateMutex);
    return randomSeed;
}

ScopedSleepHook::ScopedSleepHook(std::function<void(uint32_t)> hook) {
    std::lock_guard<std::mutex> hold(stateMutex);
    sleepHook = std::move(hook);
}

ScopedSleepHook::~ScopedSleepHook() {
    std::lock_guard<std::mutex> hold(stateMutex);
    sleepHook = nullptr;
}

void HoldWakeableSleeps(bool hold) { holdWakeable.store(hold); }

void InstallGuardDriver() { InstallPlatformDriver(&guardDriver); }
