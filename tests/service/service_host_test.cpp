// The service host's rules in virtual time: what the manager is told and in which order, the
// 100 ms delivery, the minute's re-check, control 128 under the control lock, the stop order.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "runtime/runtime.h"
#include "runtime/text.h"
#include "service/service.h"
#include "service/service_host.h"
#include "tests/support/virtual_time.h"

namespace {
std::vector<std::string> events;
std::vector<uint64_t> restartTimes;
uint64_t stopAtMs = 0, interrogateAtMs = 0;
const char* setting = "127.0.0.1";
uint8_t role = 1;

void Note(const std::string& event) { events.push_back(event); }
const ServiceHostCalls CALLS = {
    [](uint32_t state, uint32_t accepted) { Note("status " + std::to_string(state) + "/" + std::to_string(accepted)); },
    [] { Note("create stop"); }, [] { Note("signal stop"); },
    [](uint32_t timeoutMs) -> int32_t {
        AdvanceVirtualTime(timeoutMs);
        if (VirtualElapsedMs() == interrogateAtMs) {
            HandleServiceControl(&CALLS, 4);  // answered with the state and controls in force
        }
        return VirtualElapsedMs() >= stopAtMs ? 1 : 0;
    },
    [] { Note("close stop"); }, [] { Note("take over clock"); }, [] { Note("trouble sink"); }, [] { Note("drain"); },
    [](char* destination, uint32_t capacity) { CopyText(destination, setting, capacity); },
    []() -> uint8_t { return role; },
    []() -> int32_t { Note("start sntp"); return 0; },
    []() -> int32_t { Note("restart sntp"); restartTimes.push_back(VirtualElapsedMs()); return 0; },
    []() -> int32_t { Note("stop sntp"); return 0; }};

void RunHost(uint64_t stopAfterMs) {
    InstallVirtualTime();
    events.clear();
    restartTimes.clear();
    stopAtMs = stopAfterMs;
    RunServiceHost(&CALLS);
    RemoveVirtualTime();
}
}  // namespace

TEST(ServiceHost, RunsReportedFirstDrainsEveryStepAndNeverDrainsTheClearsOfTheStop) {
    interrogateAtMs = 500;
    RunHost(1000);
    interrogateAtMs = 0;
    // One delivery per 100 ms step, nothing else while the role holds; the interrogation at 500 ms.
    const std::vector<std::string> expected = {
        "create stop", "status 2/0", "status 4/5", "take over clock", "trouble sink", "start sntp", "drain", "drain",
        "drain",       "drain",      "drain",      "status 4/5",      "drain",        "drain",      "drain", "drain",
        "drain",       "status 3/5", "close stop", "stop sntp",       "status 1/0"};
    EXPECT_EQ(events, expected);
}

TEST(ServiceHost, RestartsOnlyWhenTheMinutesRecheckFindsTheRoleChanged) {
    struct Case {
        const char* setting;
        uint8_t role;
        size_t restarts;  // in 3 minutes 50 s
    };
    const Case cases[] = {
        {"127.0.0.1", 1, 0}, {"127.0.0.1", 0, 3},  // names this host: the server stays
        {"127.0.0.2", 0, 0}, {"127.0.0.2", 1, 3},  // another node: its client stays
        {"", 1, 3},                                // nothing parses: 0.0.0.0 is never this host's
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.setting);
        setting = c.setting;
        role = c.role;
        RunHost(230000);
        ASSERT_EQ(restartTimes.size(), c.restarts);
        for (size_t i = 0; i < restartTimes.size(); ++i) {
            EXPECT_EQ(restartTimes[i], (i + 1) * RECHECK_INTERVAL_MS);
        }
    }
}

TEST(ServiceHost, ControlsStopRestartUnderTheControlLockOrOnlyReport) {
    RunHost(200);  // running, then stopped: the handler answers with the state in force
    events.clear();
    for (uint32_t control : {HOST_CONTROL_STOP, HOST_CONTROL_SHUTDOWN, 2u, 4u, 129u}) {
        HandleServiceControl(&CALLS, control);
    }
    EXPECT_EQ(events, std::vector<std::string>({"status 3/0", "signal stop", "status 3/0", "signal stop",
                                                "status 3/0", "status 3/0", "status 3/0"}));

    // Control 128 waits for whoever holds the control lock, restarts, then answers the manager.
    events.clear();
    std::atomic<int> done{0};
    EnterLock(&controlLock);
    std::thread handler([&] {
        HandleServiceControl(&CALLS, CONTROL_FORCE_RESTART);
        done = 1;
    });
    for (int i = 0; i < 50 && done == 0; ++i) {
        std::this_thread::yield();
    }
    EXPECT_EQ(done.load(), 0);
    EXPECT_TRUE(events.empty());
    LeaveLock(&controlLock);
    handler.join();
    EXPECT_EQ(events, std::vector<std::string>({"restart sntp", "status 3/0"}));
}
