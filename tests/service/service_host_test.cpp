// The service host's rules in virtual time, and the command line's decisions.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "runtime/text.h"
#include "service/service.h"
#include "service/service_host.h"
#include "tests/support/virtual_time.h"

namespace {
std::vector<std::string> events;
std::vector<uint64_t> restartTimes;
uint64_t stopAtMs = 0;
const char* setting = "127.0.0.1";
uint8_t role = 1;

void Note(const std::string& event) { events.push_back(event); }

// The manager's calls recorded as events; it interrogates the service at 500 ms and stops it at stopAtMs.
const ServiceHostCalls CALLS = {
    [](uint32_t state, uint32_t accepted) { Note("status " + std::to_string(state) + "/" + std::to_string(accepted)); },
    [] { Note("create stop"); },
    [] { Note("signal stop"); },
    [](uint32_t timeoutMs) -> int32_t {
        AdvanceVirtualTime(timeoutMs);
        if (VirtualElapsedMs() == 500) HandleServiceControl(&CALLS, 4);
        return VirtualElapsedMs() >= stopAtMs ? 1 : 0;
    },
    [] { Note("close stop"); },
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
        restartTimes.push_back(VirtualElapsedMs());
        return 0;
    },
    []() -> int32_t {
        Note("stop sntp");
        return 0;
    }};

void RunHost(uint64_t stopAfterMs) {
    ScopedVirtualTime time;
    events.clear();
    restartTimes.clear();
    stopAtMs = stopAfterMs;
    RunServiceHost(&CALLS);
}
}  // namespace

// Reported running first; a drain per 100 ms step, the interrogation at 500 ms answered with the
// state in force; the stop's clears never drained.
TEST(ServiceHost, StartLoopAndStopFollowTheirOrder) {
    setting = "127.0.0.1";
    role = 1;
    RunHost(1000);
    EXPECT_EQ(events, std::vector<std::string>({
        "create stop", "status 2/0", "status 4/5", "take over clock", "trouble sink", "start sntp", "drain", "drain",
        "drain",       "drain",      "drain",      "status 4/5",      "drain",        "drain",      "drain", "drain",
        "drain",       "status 3/5", "close stop", "stop sntp",       "status 1/0"}));
}

// A late stop or shutdown (the platform's shutdown may send one) and every other control is
// answered with stopped, and the closed stop signal is left alone.
TEST(ServiceHost, ControlsAfterTheStopAreAnsweredStopped) {
    RunHost(100);
    events.clear();
    for (uint32_t control : {1u, 5u, 2u, 4u, 129u}) HandleServiceControl(&CALLS, control);
    EXPECT_EQ(events, std::vector<std::string>(5, "status 1/0"));
}

// It waits for whoever holds the control lock, restarts, then answers the manager.
TEST(ServiceHost, Control128RestartsUnderTheControlLock) {
    RunHost(100);
    events.clear();
    EnterLock(&controlLock);
    std::thread handler([] { HandleServiceControl(&CALLS, 128); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const std::vector<std::string> whileLocked = events;
    LeaveLock(&controlLock);
    handler.join();
    EXPECT_EQ(whileLocked, std::vector<std::string>{});
    EXPECT_EQ(events, std::vector<std::string>({"restart sntp", "status 1/0"}));
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
        EXPECT_EQ(restartTimes, c.restarts ? std::vector<uint64_t>({60000, 120000, 180000}) : std::vector<uint64_t>())
            << c.label;
    }
}

TEST(CommandLine, TheFirstWordDecides) {
    const struct {
        std::vector<const char*> argv;
        CommandAction action;
    } commands[] = {
        {{"x", "install"}, COMMAND_INSTALL},  {{"x", "uninstall"}, COMMAND_UNINSTALL},
        {{"x", "stopWTS"}, COMMAND_STOP_WTS}, {{"x", "command", "130"}, COMMAND_SEND_CONTROL},
        {{"x", "command"}, COMMAND_DISPATCH}, {{"x"}, COMMAND_DISPATCH},
    };
    for (const auto& c : commands) {
        EXPECT_EQ(c.action, ChooseCommand(static_cast<int>(c.argv.size()), c.argv.data(), strcmp)) << c.argv.back();
    }
}

TEST(CommandLine, OnlyControls128To255MayBeSent) {
    for (int32_t n : {127, 128, 255, 256, 0, -1, INT32_MIN}) {
        EXPECT_EQ(n == 128 || n == 255 ? 1 : 0, ControlNumberAllowed(n)) << n;
    }
}

namespace {
// The stop signal as the platform holds it. Once closed its handle may already name another
// object, so a signal after the close is a fault, however harmless it looks here. One the
// platform could not make is never signalled.
struct StopSignalFake {
    bool made = true;
    bool open = false;
    bool signalled = false;
    int32_t signalsAfterClose = 0;
};
StopSignalFake stopSignal;
std::vector<std::string> stopReports;
const uint64_t FIRST_STOP_AT_MS = 300;
const uint64_t NO_STOP_LIMIT_MS = 10000;  // a host that never sees its stop still ends the test

// The manager stops the service at 300 ms, and again while the first stop's shutdown waits for
// the time thread (stop stays accepted until the stopped report).
const ServiceHostCalls DOUBLE_STOP_CALLS = {
    [](uint32_t state, uint32_t accepted) {
        stopReports.push_back(std::to_string(state) + "/" + std::to_string(accepted) + " at " +
                              std::to_string(VirtualElapsedMs()));
    },
    [] { stopSignal.open = true; },
    [] {
        if (!stopSignal.open) {
            stopSignal.signalsAfterClose++;
            return;
        }
        stopSignal.signalled = stopSignal.made;
    },
    [](uint32_t timeoutMs) -> int32_t {
        AdvanceVirtualTime(timeoutMs);
        if (VirtualElapsedMs() == FIRST_STOP_AT_MS) {
            HandleServiceControl(&DOUBLE_STOP_CALLS, HOST_CONTROL_STOP);
        }
        return stopSignal.signalled || VirtualElapsedMs() >= NO_STOP_LIMIT_MS ? 1 : 0;
    },
    [] { stopSignal.open = false; },
    [] {},
    [] {},
    [] {},
    [](char* destination, uint32_t capacity) { CopyText(destination, "127.0.0.1", capacity); },
    []() -> uint8_t { return 1; },
    []() -> int32_t { return 0; },
    []() -> int32_t { return 0; },
    []() -> int32_t {
        HandleServiceControl(&DOUBLE_STOP_CALLS, HOST_CONTROL_STOP);
        return 0;
    }};

void RunDoubleStop(bool signalMade) {
    stopSignal = StopSignalFake();
    stopSignal.made = signalMade;
    stopReports.clear();
    ScopedVirtualTime time;
    RunServiceHost(&DOUBLE_STOP_CALLS);
}
}  // namespace

TEST(ServiceHostStop, ASecondStopDuringTheShutdownLeavesTheClosedStopSignalAlone) {
    RunDoubleStop(true);
    EXPECT_EQ(0, stopSignal.signalsAfterClose);
}

// Start, running; the handler's and the loop's stop pending; the second stop's; stopped. The
// first stop ends the loop on its own wait.
TEST(ServiceHostStop, ASecondStopIsAnsweredStopPendingAndTheManagerHearsStoppedLast) {
    RunDoubleStop(true);
    EXPECT_EQ(stopReports, std::vector<std::string>({"2/0 at 0", "4/5 at 0", "3/5 at 300", "3/5 at 300",
                                                     "3/5 at 300", "1/0 at 300"}));
}

// No wait ever ends signalled, yet the stop is seen at the loop's next step, not at the test's limit.
TEST(ServiceHostStop, AStopEndsTheLoopWhenTheStopSignalCouldNotBeMade) {
    RunDoubleStop(false);
    EXPECT_EQ("1/0 at 300", stopReports.back());
}
