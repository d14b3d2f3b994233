// The SNTP controller, in virtual time: a time thread's second costs a real millisecond.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "sntp/sntp_control.h"
#include "sntp/sntp_test_seams.h"
#include "tests/support/host.h"
#include "tests/support/scoped_seams.h"
#include "tests/support/trouble_recorder.h"
#include "tests/support/virtual_time.h"
#include "tools/loopback_udp.h"
#include "trouble/trouble_queue.h"

namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;
const uint16_t TEST_SERVER_PORT = 12325;  // the server role binds this instead of 123
std::atomic<int32_t> exchangeResult{0};
std::atomic<uint32_t> graceMs{0};  // slept in the grace periods

// Bounded by the clock, as a short sleep may return at once. The condition may ask the server,
// so its last answer is the result, not a further asking.
bool WaitUntil(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + 5s;
    bool met = condition();
    while (!met && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(100us);
        met = condition();
    }
    return met;
}

SntpResult ScriptedExchange(const char*, int32_t, NtpTimestamp* time, NtpTimestamp*, uint32_t*) {
    *time = 3976214400ULL << 32;
    return exchangeResult.load();
}

// A version-3 request to the test port.
bool ServerAnswers(uint32_t waitMs) {
    LoopbackUdp endpoint{~0ULL};
    uint8_t packet[64] = {0x1B};
    if (OpenLoopbackUdp(&endpoint, "127.0.0.1", 0) != 0) return false;
    SendLoopbackUdp(&endpoint, packet, 48, LoopbackAddress("127.0.0.1"), TEST_SERVER_PORT);
    const int32_t length = ReceiveLoopbackUdp(&endpoint, packet, sizeof packet, waitMs, nullptr, nullptr);
    CloseLoopbackUdp(&endpoint);
    return length == 48 && packet[0] == 0x1C;
}

// " +code" set, " -code" cleared.
std::string Seen() {
    std::string seen;
    for (const SeenTrouble& t : TakeTroubles()) seen += (t.state == TROUBLE_SET ? " +" : " -") + std::to_string(t.code);
    return seen;
}

class SntpController : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(root_ / "Data" / "System");
        StartTroubleRecorder();
        SetSntpExchanger(ScriptedExchange);
        graceMs = 0;
        exchangeResult = 0;
        sntpServerPort = TEST_SERVER_PORT;
    }
    void TearDown() override {
        StopSntp();
        done_ = true;
        poker_.join();
        SetSntpExchanger(nullptr);
        StopTroubleRecorder();
        fs::remove_all(root_);
    }
    void WriteSetting(const char* text) { std::ofstream(settingPath_, std::ios::binary) << "#\n" << text << "\n"; }

    const fs::path root_ = fs::temp_directory_path() / ("norvik-control-" + std::to_string(CurrentProcessNumber()));
    const fs::path settingPath_ = root_ / "Data" / "System" / "Vantor.dat";
    ScopedInstallRoot installRoot_{root_.string().c_str()};
    ScopedVirtualTime time_;
    ScopedSleepHook hook_{[](uint32_t ms) {
        if (ms == 1000) {
            std::this_thread::sleep_for(1ms);
        } else {
            graceMs += ms;
        }
    }};
    std::atomic<bool> done_{false};
    // A server sees a stop when its socket wait ends, after a real second; a request ends it now.
    std::thread poker_{[this] {
        for (; !done_.load(); std::this_thread::sleep_for(1ms)) {
            if (stopRequested.load() != 0) ServerAnswers(0);
        }
    }};
};
}  // namespace

// Each row restarts from what the row above left: the role read anew, the troubles cleared after
// 1200 ms of grace, the thread replaced (a server lets its port go).
TEST_F(SntpController, EachRestartFollowsTheSetting) {
    const struct {
        const char* setting;
        SntpExchangeFunction exchange;  // null: the real one, whose resolution fails before any packet
        int32_t serverRole;
        const char* troubles;
    } rows[] = {
        {"SNTP_IP no-such-host.invalid", nullptr, 0, " +10"},
        {"SNTP_IP 0.0.0.0", ScriptedExchange, 1, " -1 -2 -3 -4 -5 -6 -7 -8 -9 -10"},
        {"SNTP_IP 127.0.0.2", ScriptedExchange, 0, " +3"},
    };
    exchangeResult = SNTP_NOT_SYNCHRONISED;
    StartSntp();
    Seen();
    for (const auto& row : rows) {
        SetSntpExchanger(row.exchange);
        WriteSetting(row.setting);
        const int32_t restarted = RestartSntp();
        const bool raised = row.serverRole == 1 || WaitUntil([] { return troubleMask.load() != 0; });
        const bool answers = row.serverRole == 1 ? WaitUntil([] { return ServerAnswers(20); }) : ServerAnswers(20);
        const std::string troubles = Seen();
        EXPECT_EQ(0, restarted) << row.setting;
        EXPECT_EQ(row.serverRole, serverRole.load()) << row.setting;
        EXPECT_EQ(row.serverRole == 1, answers) << row.setting;
        EXPECT_TRUE(raised) << row.setting;
        EXPECT_EQ(row.troubles, troubles) << row.setting;
    }
    EXPECT_EQ(3 * 1200u, graceMs.load());
}

// The clears of the stop reach the recorder; the ending client raises nothing.
TEST_F(SntpController, TheStopClearsTheTroublesAndEndsTheThread) {
    const size_t threadsBefore = CountProcessThreads();
    exchangeResult = SNTP_NOT_SYNCHRONISED;
    WriteSetting("SNTP_IP 127.0.0.2");
    StartSntp();
    const bool raised = WaitUntil([] { return troubleMask.load() != 0; });
    const int32_t stopped = StopSntp();
    const std::string troubles = Seen();
    EXPECT_TRUE(raised);
    EXPECT_EQ(0, stopped);
    EXPECT_EQ(1200u, graceMs.load());
    EXPECT_EQ(" +3 -1 -2 -3", troubles);
    EXPECT_EQ(0, TimeThreadRunning());
    EXPECT_EQ(threadsBefore, CountProcessThreads());
}

TEST_F(SntpController, ARestartAfterTheStopStartsNothing) {
    StartSntp();
    StopSntp();
    const int32_t restarted = RestartSntp();
    EXPECT_EQ(0, restarted);
    EXPECT_EQ(0, TimeThreadRunning());
}

// Two threads start, restart and stop at random, the role flipping: after the last stop no thread,
// the port let go, and no raised trouble (no server found its port taken).
TEST_F(SntpController, RacingCallsNeverLeaveASecondTimeThread) {
    const uint32_t seed = static_cast<uint32_t>(std::random_device{}());
    SCOPED_TRACE("seed " + std::to_string(seed));
    const size_t threadsBefore = CountProcessThreads();
    const auto callRandomly = [&](uint32_t caller) {
        std::mt19937 random(seed + caller);
        for (int call = 0; call < 60; ++call) {
            if (random() % 3 == 0) WriteSetting(random() % 2 == 0 ? "SNTP_IP 127.0.0.2" : "SNTP_IP 127.0.0.1");
            std::this_thread::sleep_for(random() % 20000 * 1us);
            const uint32_t choice = random() % 3;
            if (choice == 0) {
                StartSntp();
            } else if (choice == 1) {
                RestartSntp();
            } else {
                StopSntp();
            }
            EXPECT_LE(CountProcessThreads(), threadsBefore + 2 + 2) << "callers, time thread, library";
        }
    };
    std::thread first(callRandomly, 0);
    std::thread second(callRandomly, 1);
    first.join();
    second.join();
    StopSntp();
    LoopbackUdp port{~0ULL};
    const int32_t bound = OpenLoopbackUdp(&port, "127.0.0.1", TEST_SERVER_PORT, false);
    CloseLoopbackUdp(&port);
    const std::string troubles = Seen();
    EXPECT_EQ(std::string::npos, troubles.find('+')) << troubles;
    EXPECT_EQ(threadsBefore, CountProcessThreads());
    EXPECT_EQ(0, bound) << "the port let go";
}
