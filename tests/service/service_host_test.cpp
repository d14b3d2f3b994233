// The service host's rules in virtual time, and the command line's decisions.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "runtime/text.h"
#include "service/service.h"
#include "service/service_host.h"
#include "tests/support/virtual_time.h"

namespace {
const uint64_t NO_STOP_LIMIT_MS = 600000;  // a host that never sees its stop still ends the test

// The manager: it interrogates the service at 500 ms and stops it at stopAtMs, and again while the
// time thread is being stopped when stopTwice. Once closed, the stop signal's handle may already
// name another object, so a signal after the close is a fault; one never made is never signalled.
struct Manager {
    uint64_t stopAtMs = 0;
    bool stopTwice = false;
    bool signalMade = true;
    bool signalOpen = false;
    bool signalled = false;
    int32_t signalsAfterClose = 0;
    uint64_t lastStatusAtMs = 0;
    std::vector<std::string> events;
    std::vector<uint64_t> restartTimes;
} manager;
const char* setting = "127.0.0.1";
uint8_t role = 1;

void Note(const std::string& event) { manager.events.push_back(event); }

const ServiceHostCalls CALLS = {
    [](uint32_t state, uint32_t accepted) {
        Note("status " + std::to_string(state) + "/" + std::to_string(accepted));
        manager.lastStatusAtMs = VirtualElapsedMs();
    },
    [] {
        Note("create stop");
        manager.signalOpen = true;
    },
    [] {
        Note("signal stop");
        manager.signalsAfterClose += manager.signalOpen ? 0 : 1;
        manager.signalled = manager.signalOpen && manager.signalMade;
    },
    [](uint32_t timeoutMs) -> int32_t {
        AdvanceVirtualTime(timeoutMs);
        if (VirtualElapsedMs() == 500) HandleServiceControl(&CALLS, 4);
        if (VirtualElapsedMs() == manager.stopAtMs) HandleServiceControl(&CALLS, HOST_CONTROL_STOP);
        return manager.signalled || VirtualElapsedMs() >= NO_STOP_LIMIT_MS ? 1 : 0;
    },
    [] {
        Note("close stop");
        manager.signalOpen = false;
    },
    [] { Note("take over clock"); },
    [] { Note("trouble sink"); },
    [] { Note("drain"); },
    [](char* destination, uint32_t capacity) { CopyText(destination, setting, capacity); },
    []() -> uint8_t { return role; },
    []() -> int32_t {
        Note("start sntp");
        return 0;
    },
    []() -> int32_t {
        Note("restart sntp");
        manager.restartTimes.push_back(VirtualElapsedMs());
        return 0;
    },
    []() -> int32_t {
        Note("stop sntp");
        if (manager.stopTwice) HandleServiceControl(&CALLS, HOST_CONTROL_STOP);
        return 0;
    }};

void RunHost(uint64_t stopAtMs, bool stopTwice = false, bool signalMade = true) {
    ScopedVirtualTime time;
    manager = Manager();
    manager.stopAtMs = stopAtMs;
    manager.stopTwice = stopTwice;
    manager.signalMade = signalMade;
    RunServiceHost(&CALLS);
}
}  // namespace

// Reported running first; a drain per 100 ms step, the interrogation at 500 ms answered with the
// state in force; the stop's clears never drained.
TEST(ServiceHost, StartLoopAndStopFollowTheirOrder) {
    setting = "127.0.0.1";
    role = 1;
    RunHost(1000);
    EXPECT_EQ(manager.events, std::vector<std::string>({
        "create stop", "status 2/0", "status 4/5", "take over clock", "trouble sink", "start sntp", "drain", "drain",
        "drain",       "drain",      "drain",      "status 4/5",      "drain",        "drain",      "drain", "drain",
        "drain",       "status 3/5", "signal stop", "status 3/5",     "close stop",   "stop sntp",  "status 1/0"}));
}

// A late stop or shutdown (the platform's shutdown may send one) and every other control is
// answered with stopped, and the closed stop signal is left alone.
TEST(ServiceHost, ControlsAfterTheStopAreAnsweredStopped) {
    RunHost(100);
    manager.events.clear();
    for (uint32_t control : {1u, 5u, 2u, 4u, 129u}) HandleServiceControl(&CALLS, control);
    EXPECT_EQ(manager.events, std::vector<std::string>(5, "status 1/0"));
}

TEST(ServiceHost, Control128RestartsUnderTheControlLock) {
    RunHost(100);
    manager.events.clear();
    EnterLock(&controlLock);
    std::thread handler([] { HandleServiceControl(&CALLS, 128); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const std::vector<std::string> whileLocked = manager.events;
    LeaveLock(&controlLock);
    handler.join();
    EXPECT_EQ(whileLocked, std::vector<std::string>{});
    EXPECT_EQ(manager.events, std::vector<std::string>({"restart sntp", "status 1/0"}));
}

// Over 3 minutes 50 s, a restart at each minute's re-check that finds the role no longer fits.
TEST(ServiceHost, TheMinutesRecheckRestartsWhenTheRoleNoLongerFits) {
    const struct {
        const char* label;
        const char* setting;
        uint8_t role;
        bool restarts;
    } cases[] = {
        {"this host, a server", "127.0.0.1", 1, false},
        {"this host, a client", "127.0.0.1", 0, true},
        {"another node, its client", "127.0.0.2", 0, false},
        {"another node, a server", "127.0.0.2", 1, true},
        {"nothing that parses: 0.0.0.0 is never this host's", "", 1, true},
    };
    for (const auto& c : cases) {
        setting = c.setting;
        role = c.role;
        RunHost(230000);
        EXPECT_EQ(manager.restartTimes, c.restarts ? std::vector<uint64_t>({60000, 120000, 180000}) : std::vector<uint64_t>())
            << c.label;
    }
}

TEST(CommandLine, OnlyControls128To255MayBeSent) {
    for (int32_t n : {127, 128, 255, 256, 0, -1, INT32_MIN}) {
        EXPECT_EQ(n == 128 || n == 255 ? 1 : 0, ControlNumberAllowed(n)) << n;
    }
}


TEST(ServiceHostStop, ASecondStopDuringTheShutdownLeavesTheClosedStopSignalAlone) {
    RunHost(300, true);
    EXPECT_EQ(0, manager.signalsAfterClose);
}

// Stop stays accepted until the stopped report.
TEST(ServiceHostStop, ASecondStopIsAnsweredStopPendingAndTheManagerHearsStoppedLast) {
    RunHost(300, true);
    const std::vector<std::string> last(manager.events.end() - 3, manager.events.end());
    EXPECT_EQ(last, std::vector<std::string>({"stop sntp", "status 3/5", "status 1/0"}));
}

// No wait ever ends signalled, yet the stop is seen at the loop's next step, not at the test's limit.
TEST(ServiceHostStop, AStopEndsTheLoopWhenTheStopSignalCouldNotBeMade) {
    RunHost(300, false, false);
    EXPECT_EQ(300u, manager.lastStatusAtMs);
}
