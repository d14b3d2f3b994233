// The client thread's schedule on a recording fake exchange; then across the wrap.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

#include "runtime/platform.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_test_seams.h"
#include "tests/support/civil_time.h"
#include "tests/support/sntp_answers.h"
#include "tests/support/trouble_recorder.h"
#include "tests/support/virtual_time.h"
#include "trouble/trouble_queue.h"

namespace {
const uint64_t S = 1000;
const NtpTimestamp SERVER_TIME = (3976214400ULL << 32) + 0x80000000ULL;  // 2026-01-01 00:00:00.5 UTC: rounded up
const char SERVER[] = "127.0.0.2";
const uint32_t STRATUM = 3;

std::vector<SntpResult> script;  // results in order; the last one repeats
std::vector<uint64_t> callAt;
std::vector<int32_t> callTimeout;
std::function<void()> onExchange;
std::function<void()> onSleep;
std::atomic<int64_t> listenedTime{0};

SntpResult FakeExchange(const char* server, int32_t timeoutMs, NtpTimestamp* time, NtpTimestamp*, uint32_t* stratum) {
    EXPECT_STREQ(SERVER, server);
    callAt.push_back(VirtualElapsedMs());
    callTimeout.push_back(timeoutMs);
    onExchange();
    const SntpResult result = script[std::min(callAt.size(), script.size()) - 1];
    if (result == SNTP_OK) {
        *time = SERVER_TIME;
        *stratum = STRATUM;
    }
    if (result == SNTP_NO_RESPONSE) AdvanceVirtualTime(static_cast<uint64_t>(timeoutMs / 500 + 1) * 500);
    return result;
}

bool WaitFor(const std::function<bool()>& condition) {
    for (int ms = 0; ms < 10000 && !condition(); ++ms) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}

void RunClientThread() { SntpClientThread(reinterpret_cast<uintptr_t>(SERVER)); }

class SntpClient : public testing::Test {
protected:
    void SetUp() override {
        NtpInitEpoch();
        StartTroubleRecorder();
        SetSntpExchanger(FakeExchange);
        onExchange = [] {};
        onSleep = [] {};
    }
    void TearDown() override {
        SetSntpExchanger(nullptr);
        SetTimeSetListener(nullptr);
        StopTroubleRecorder();
    }
    // In fresh virtual time, to the first countdown sleep after count exchanges (or three days),
    // from stale results.
    void RunClient(std::vector<SntpResult> results, size_t count, std::vector<int32_t> randoms = {0, 0}) {
        ScopedVirtualTime time;
        QueueRandomValues(randoms);
        script = results;
        callAt.clear();
        callTimeout.clear();
        synchronised = 1;
        lastResult = -1;
        const std::thread::id client = std::this_thread::get_id();
        ScopedSleepHook hook([count, client](uint32_t) {
            if (std::this_thread::get_id() != client) {  // SntpSyncNow's pauses
                std::this_thread::sleep_for(std::chrono::microseconds(100));
                return;
            }
            onSleep();
            const bool done = callAt.size() >= count || VirtualElapsedMs() > 3 * 86400 * S;
            stopRequested = done ? 1 : 0;
        });
        RunClientThread();
        stopRequested = 0;
    }
};
}  // namespace

// Countdowns of 60 and 119 mean 59 and 118 sleeps; a countdown stored at askAt cuts it (0 counts as 1).
TEST_F(SntpClient, TheStartDelayComesFromTheSecondRandomValueAndAStoredOneCutsIt) {
    const struct {
        std::vector<int32_t> randoms;
        uint64_t askAt;
        int32_t stored;
        uint64_t firstAt;
    } cases[] = {{{32767, 0}, UINT64_MAX, 1, 59 * S},
                 {{0, 32767}, UINT64_MAX, 1, 118 * S},
                 {{0, 32767}, 10 * S, 1, 11 * S},
                 {{0, 32767}, 10 * S, 0, 12 * S}};
    for (const auto& c : cases) {
        onSleep = [&c] {
            if (VirtualElapsedMs() == c.askAt) syncCountdown = c.stored;
        };
        RunClient({SNTP_OK}, 1, c.randoms);
        EXPECT_EQ(std::vector<uint64_t>{c.firstAt}, callAt) << "first exchange at " << c.firstAt;
        EXPECT_EQ(uint32_t((VIRTUAL_START_FILETIME - UNIX_EPOCH_FILETIME) / 10000000), RecordedRandomSeed());
    }
}

// Each silent attempt takes its time-out plus a step; the next ladder begins 1199 s after the first ended.
TEST_F(SntpClient, ASilentServerGetsFiveAttemptsThenTroubleTwoAndANewLadderLater) {
    RunClient({SNTP_NO_RESPONSE}, 10);
    const uint64_t next = 59000 + 907500 + 1199000;
    EXPECT_EQ((std::vector<uint64_t>{59000, 64500, 125000, 245500, 486000, next, next + 5500, next + 66000,
                                     next + 186500, next + 427000}),
              callAt);
    EXPECT_EQ((std::vector<int32_t>{5000, 60000, 120000, 240000, 480000, 5000, 60000, 120000, 240000, 480000}),
              callTimeout);
    const std::vector<SeenTrouble> troubles = TakeTroubles();
    EXPECT_EQ(std::vector<SeenTrouble>(2, SeenTrouble{SNTP_NO_RESPONSE, TROUBLE_SET}), troubles);
    EXPECT_EQ(SNTP_NO_RESPONSE, lastResult.load());
    EXPECT_EQ(0, synchronised.load());
}

// Every sleep ends 15 ms late, as one on a 15.6 ms system timer may: the day is still a day.
TEST_F(SntpClient, TheDaysWaitEndsOnTimeWhenEverySleepEndsLate) {
    onSleep = [] { AdvanceVirtualTime(15); };
    RunClient({SNTP_OK}, 2);
    ASSERT_EQ(2u, callAt.size());
    EXPECT_EQ(86399 * S + 15, callAt[1] - callAt[0]);
}

TEST_F(SntpClient, ASuccessSetsTheClockAndLeavesItsResultsForTheServer) {
    SetTimeSetListener([](int64_t unixSeconds) { listenedTime = unixSeconds; });
    RunClient({SNTP_OK}, 1);
    EXPECT_EQ(SNTP_OK, lastResult.load());
    EXPECT_EQ(1, synchronised.load());
    EXPECT_EQ(SERVER_TIME, lastSyncTime.load()) << "for the server's reference stamp";
    EXPECT_EQ(STRATUM, upstreamStratum.load()) << "for the server's stratum";
    EXPECT_EQ(std::vector<int64_t>{NtpToFileTime(SERVER_TIME)}, RecordedClockSettings());
    EXPECT_EQ(1767225601, listenedTime.load()) << "the listener hears the time set, in whole seconds";
}

// Asked during the day's wait: answered by the first silent attempt while the ladder goes on.
TEST_F(SntpClient, SyncNowAnswersWithTheFirstSilence) {
    std::atomic<SntpResult> answer{SYNC_NOW_PENDING};
    std::atomic<bool> answeredDuringTheLadder{false};
    std::thread asker;
    onSleep = [&] {
        if (callAt.size() != 1 || asker.joinable()) return;
        asker = std::thread([&answer] { answer = SntpSyncNow(); });
        WaitFor([] { return syncCountdown.load() == 1; });  // stored between the client's read and write, it is lost
    };
    onExchange = [&] {
        if (callAt.size() == 3) answeredDuringTheLadder = WaitFor([&answer] { return answer != SYNC_NOW_PENDING; });
    };
    RunClient({SNTP_OK, SNTP_NO_RESPONSE}, 6);
    asker.join();
    ASSERT_EQ(6u, callAt.size());
    EXPECT_LT(callAt[1] - callAt[0], 86399 * S) << "the day's wait cut short";
    EXPECT_TRUE(answeredDuringTheLadder.load());
    EXPECT_EQ(SNTP_NO_RESPONSE, answer.load());
}

TEST_F(SntpClient, SyncNowWithoutAClientSaysItIsNotRunning) { EXPECT_EQ(SNTP_CLIENT_NOT_STARTED, SntpSyncNow()); }

TEST_F(SntpClient, AStopDuringTheExchangeEndsTheThreadWithoutATrouble) {
    onExchange = [] { stopRequested = 1; };
    RunClient({SNTP_SOCKET_ERROR}, SIZE_MAX);
    EXPECT_EQ(std::vector<uint64_t>{59 * S}, callAt);
    EXPECT_EQ(59 * S, VirtualElapsedMs());
    const std::vector<SeenTrouble> troubles = TakeTroubles();
    EXPECT_EQ(std::vector<SeenTrouble>{}, troubles);
}

// The real exchange on scripted sockets: the server's clock runs two minutes ahead of this
// machine's, has already wrapped, and moves with virtual time.
TEST(SntpClientAcrossTheWrap, TheClockIsSetToTheServersTimeAfterTheWrap) {
    const NtpTimestamp serverStart = 44ULL << 32;  // 2036-02-07 06:29:00
    NtpInitEpoch();
    ScopedVirtualTime time(FileTimeOf(2036, 2, 7, 6, 27, 0));
    HoldWakeableSleeps(true);
    QueueRandomValues({0, 0});
    ScriptedSockets sockets;
    sockets.OnSend([&sockets, serverStart](const ScriptedDatagram& request) {
        const uint64_t ms = VirtualElapsedMs();
        sockets.Queue(GoodAnswerTo(request, serverStart + ((ms / 1000) << 32) + ((ms % 1000) << 32) / 1000));
    });
    ScopedSleepHook hook([](uint32_t) {
        if (!RecordedClockSettings().empty() || VirtualElapsedMs() > 86400 * S) stopRequested = 1;
    });
    RunClientThread();
    stopRequested = 0;
    const int64_t serverAtExchange = FileTimeOf(2036, 2, 7, 6, 29, 59);  // after a start delay of 59 s
    const std::vector<int64_t> settings = RecordedClockSettings();
    ASSERT_EQ(1u, settings.size());
    EXPECT_NEAR(serverAtExchange, settings[0], FILETIME_TICKS_PER_MS);
}
