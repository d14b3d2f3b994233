// The service host's rules in virtual time: what the manager is told and in which order, the
// 100 ms delivery, the minute's re-check, control 128 under the control lock, the stop order.
#include <gtest/gtest.h>

#include <algorithm>
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
uint64_t stopAtMs = 0;
const char* setting = "";
uint8_t role = 0;

void Note(const std::string& event) { events.push_back(event); }
void ReportStatus(uint32_t state, uint32_t accepted) {
    Note("status " + std::to_string(state) + "/" + std::to_string(accepted));
}
void CreateStop() { Note("create stop"); }
void SignalStop() { Note("signal stop"); }
int32_t WaitForStop(uint32_t timeoutMs) {
    AdvanceVirtualTime(timeoutMs);
    return VirtualElapsedMs() >= stopAtMs ? 1 : 0;
}
void CloseStop() { Note("close stop"); }
void TakeOver() { Note("take over clock"); }
void Sink() { Note("trouble sink"); }
void Drain() { Note("drain"); }
void ReadSetting(char* destination, uint32_t capacity) { CopyText(destination, setting, capacity); }
uint8_t Role() { return role; }
int32_t Start() { Note("start sntp"); return 0; }
int32_t Restart() {
    Note("restart sntp");
    restartTimes.push_back(VirtualElapsedMs());
    return 0;
}
int32_t Stop() { Note("stop sntp"); return 0; }

const ServiceHostCalls CALLS = {ReportStatus, CreateStop, SignalStop, WaitForStop, CloseStop, TakeOver,
                                Sink, Drain, ReadSetting, Role, Start, Restart, Stop};

class ServiceHost : public testing::Test {
protected:
    void SetUp() override {
        InstallVirtualTime();
        events.clear();
        restartTimes.clear();
    }
    void TearDown() override { RemoveVirtualTime(); }
    void Run(uint64_t stopAfterMs) {
        stopAtMs = stopAfterMs;
        RunServiceHost(&CALLS);
    }
};

TEST_F(ServiceHost, RunsReportedFirstDrainsEveryStepAndNeverDrainsTheClearsOfTheStop) {
    setting = "127.0.0.1";
    role = 1;
    Run(1000);
    const std::vector<std::string> start = {"create stop", "status 2/0", "status 4/5", "take over clock",
                                            "trouble sink", "start sntp", "drain"};
    ASSERT_GE(events.size(), start.size() + 4);
    EXPECT_EQ(std::vector<std::string>(events.begin(), events.begin() + start.size()), start);
    const std::vector<std::string> end = {"drain", "status 3/5", "close stop", "stop sntp", "status 1/0"};
    EXPECT_EQ(std::vector<std::string>(events.end() - end.size(), events.end()), end);
    // One delivery per 100 ms step: ten in a second, and nothing else while the role holds.
    EXPECT_EQ(std::count(events.begin(), events.end(), "drain"), 10);
    EXPECT_EQ(events.size(), start.size() + 9 + 4);
}

TEST_F(ServiceHost, RestartsOnlyWhenTheMinutesRecheckFindsTheRoleChanged) {
    struct Case {
        const char* setting;
        uint8_t role;
        size_t restarts;  // in 3 minutes 50 s
    };
    const Case cases[] = {
        {"127.0.0.1", 1, 0},        // names this host, runs as the server
        {"127.0.0.1", 0, 3},        // names this host, runs as a client
        {"127.0.0.2", 0, 0},        // another node, runs as its client
        {"127.0.0.2", 1, 3},
        {"", 1, 3},                 // nothing parses: 0.0.0.0 is never this host's
        {"not an address", 0, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.setting);
        SetUp();
        setting = c.setting;
        role = c.role;
        Run(230000);
        ASSERT_EQ(restartTimes.size(), c.restarts);
        for (size_t i = 0; i < restartTimes.size(); ++i) {
            EXPECT_EQ(restartTimes[i], (i + 1) * RECHECK_INTERVAL_MS);
        }
    }
}

TEST_F(ServiceHost, ControlsStopRestartUnderTheControlLockOrOnlyReport) {
    setting = "127.0.0.1";
    role = 1;
    Run(200);  // running, then stopped: the handler answers with the state in force
    events.clear();
    HandleServiceControl(&CALLS, HOST_CONTROL_STOP);
    HandleServiceControl(&CALLS, HOST_CONTROL_SHUTDOWN);
    for (uint32_t control : {2u, 3u, 4u, 129u, 255u}) {
        HandleServiceControl(&CALLS, control);
    }
    EXPECT_EQ(events, std::vector<std::string>({"status 3/0", "signal stop", "status 3/0", "signal stop",
                                                "status 3/0", "status 3/0", "status 3/0", "status 3/0",
                                                "status 3/0"}));

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
}  // namespace
