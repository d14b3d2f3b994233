// The client thread's schedule in virtual time: a fake exchange records when it was called, with which
// time-out and troubles, and moves the virtual clock by the wait a real exchange would take.
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>
#include <tuple>

#include "runtime/platform.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_test_seams.h"
#include "tests/support/civil_time.h"
#include "tests/support/fake_sntp_server.h"
#include "tests/support/trouble_recorder.h"
#include "tests/support/virtual_time.h"
#include "trouble/trouble_queue.h"

namespace {
const uint64_t S = 1000;  // one second in milliseconds
const NtpTimestamp SERVER_TIME = (3976214400ULL << 32) + 0x80000000ULL;  // 2026-01-01 00:00:00.5 UTC: rounded up
const NtpTimestamp SERVER_DELAY = 0x00000000028F5C28ULL;  // 10 ms

std::vector<SntpResult> script;  // results in order; the last one repeats
std::vector<uint64_t> callAt;    // virtual time as each exchange began
std::vector<int32_t> callTimeout;
std::vector<uint32_t> callMask;  // troubleMask as each exchange began
std::function<void()> onExchange = [] {}, onSleep = [] {};
std::atomic<int64_t> listenedTime{0};

SntpResult FakeExchange(const char* server, int32_t timeoutMs, NtpTimestamp* time, NtpTimestamp* delay,
                        uint32_t* stratum) {
    EXPECT_STREQ("10.1.2.3", server);
    callAt.push_back(VirtualElapsedMs()), callTimeout.push_back(timeoutMs), callMask.push_back(troubleMask.load());
    onExchange();
    const SntpResult result = script[std::min(callAt.size(), script.size()) - 1];
    if (result == SNTP_OK) *time = SERVER_TIME, *delay = SERVER_DELAY, *stratum = 3;
    if (result == SNTP_NO_RESPONSE) AdvanceVirtualTime(static_cast<uint64_t>(timeoutMs / 500 + 1) * 500);
    return result;
}

bool WaitFor(const std::function<bool()>& condition) {
    for (int ms = 0; ms < 10000 && !condition(); ++ms) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return condition();
}

// Runs the client in fresh virtual time to its first countdown sleep after count exchanges (or three days).
void RunClient(std::vector<SntpResult> results, size_t count, std::vector<int32_t> randoms = {0, 0}) {
    NtpInitEpoch(), InstallVirtualTime(), QueueRandomValues(randoms), StartTroubleRecorder();
    SetSntpExchanger(FakeExchange), script = results, callAt.clear(), callTimeout.clear(), callMask.clear();
    synchronised = 1, lastResult = -1, lastSyncTime = lastDelay = upstreamStratum = 0;  // the first two stale
    SetSleepHook([count](uint32_t ms) {
        if (ms != 1000) return std::this_thread::sleep_for(std::chrono::microseconds(100));  // SntpSyncNow's pauses
        onSleep(), stopRequested = callAt.size() >= count || VirtualElapsedMs() > 3 * 86400 * S ? 1 : 0;
    });
    std::thread([] { SntpClientThread(reinterpret_cast<uintptr_t>("10.1.2.3")); }).join();
    EXPECT_EQ(0, clientRunning.load());
    stopRequested = 0, RemoveVirtualTime(), SetTimeSetListener(nullptr), onExchange = onSleep = [] {};
}
}  // namespace

TEST(SntpClient, TheStartDelayComesFromTheSecondRandomValueAndAStoredOneCutsIt) {
    // Countdowns of 60 and 119 mean 59 and 118 sleeps; syncCountdown is set to stored in the sleep at askAt.
    const struct { std::vector<int32_t> randoms; uint64_t askAt; int32_t stored; uint64_t firstAt; } cases[] = {
        {{32767, 0}, UINT64_MAX, 1, 59 * S}, {{0, 32767}, UINT64_MAX, 1, 118 * S},
        {{0, 32767}, 10 * S, 1, 11 * S}, {{0, 32767}, 10 * S, 0, 12 * S}};  // 0 counts as 1
    for (const auto& c : cases) {
        SCOPED_TRACE(c.firstAt);
        onSleep = [&c] { syncCountdown = VirtualElapsedMs() == c.askAt ? c.stored : syncCountdown.load(); };
        RunClient({SNTP_OK}, 1, c.randoms);
        EXPECT_EQ(std::vector<uint64_t>{c.firstAt}, callAt);
        EXPECT_EQ(uint32_t((VIRTUAL_START_FILETIME - UNIX_EPOCH_FILETIME) / 10000000), RecordedRandomSeed());  // wall
    }
}

TEST(SntpClient, ASilentServerGetsFiveAttemptsThenTroubleTwoAndANewLadderLater) {
    // Each silent attempt takes its time-out plus a step; the next ladder begins 1199 s after the first ended.
    RunClient({SNTP_NO_RESPONSE}, 10);
    const uint64_t next = 59000 + 907500 + 1199000;
    EXPECT_EQ((std::vector<uint64_t>{59000, 64500, 125000, 245500, 486000, next, next + 5500, next + 66000,
                                     next + 186500, next + 427000}), callAt);
    EXPECT_EQ((std::vector<int32_t>{5000, 60000, 120000, 240000, 480000, 5000, 60000, 120000, 240000, 480000}),
              callTimeout);
    EXPECT_EQ((std::vector<uint32_t>{0, 0, 0, 0, 0, 4, 4, 4, 4, 4}), callMask) << "trouble 2 after five silences";
    EXPECT_EQ(std::vector<SeenTrouble>(2, SeenTrouble{SNTP_NO_RESPONSE, TROUBLE_SET}), TakeTroubles());
    EXPECT_EQ(std::make_pair(SNTP_NO_RESPONSE, 0), std::make_pair(lastResult.load(), synchronised.load()));
}

// An unusable answer raises its trouble at each attempt; a success sets the clock, clears trouble 2, waits a day.
TEST(SntpClient, FailuresRetryEveryTwentyMinutesAndASuccessWaitsADay) {
    SetTimeSetListener([](int64_t unixSeconds) { listenedTime = unixSeconds; });
    RunClient({SNTP_INCONSISTENT_ADDRESS, SNTP_INCONSISTENT_ADDRESS, SNTP_OK, SNTP_OK}, 4);
    const uint64_t third = 59000 + 2 * 1199000;
    EXPECT_EQ((std::vector<uint64_t>{59000, 59000 + 1199000, third, third + 86399000}), callAt);
    EXPECT_EQ((std::vector<int32_t>{5000, 5000, 5000, 5000}), callTimeout);
    // Each success clears trouble 2 (reported, as trouble 6 is active); trouble 6 stays.
    const SeenTrouble raised{SNTP_INCONSISTENT_ADDRESS, TROUBLE_SET}, cleared{SNTP_NO_RESPONSE, TROUBLE_CLEARED};
    EXPECT_EQ((std::vector<SeenTrouble>{raised, raised, cleared, cleared}), TakeTroubles());
    EXPECT_EQ(std::make_tuple(SNTP_OK, 1, SERVER_TIME, SERVER_DELAY, 3u, 1u << SNTP_INCONSISTENT_ADDRESS),
              std::make_tuple(lastResult.load(), synchronised.load(), lastSyncTime.load(), lastDelay.load(),
                              upstreamStratum.load(), troubleMask.load()));  // for SntpSyncNow and the server
    EXPECT_EQ(std::make_pair(std::vector<int64_t>(2, NtpToFileTime(SERVER_TIME)), int64_t{1767225601}),
              std::make_pair(RecordedClockSettings(), listenedTime.load()));
}

TEST(SntpClient, SyncNowReportsTheFirstSilenceWhileTheLadderGoesOn) {
    EXPECT_EQ(SNTP_CLIENT_NOT_STARTED, SntpSyncNow());
    std::atomic<SntpResult> result{SYNC_NOW_PENDING};
    bool answeredFirst = false;
    std::thread asker;
    onSleep = [&] {  // in the day's wait after a success
        if (callAt.size() != 1 || asker.joinable()) return;
        asker = std::thread([&] { result = SntpSyncNow(); });
        WaitFor([] { return syncCountdown.load() == 1; });  // a store between the client's read and write is lost
    };
    onExchange = [&] { answeredFirst |= callAt.size() == 3 && WaitFor([&] { return result != SYNC_NOW_PENDING; }); };
    RunClient({SNTP_OK, SNTP_NO_RESPONSE}, 6);
    asker.join();
    EXPECT_TRUE(answeredFirst && result.load() == SNTP_NO_RESPONSE) << "the first silence while the second waits";
    EXPECT_EQ((std::vector<int32_t>{5000, 5000, 60000, 120000, 240000, 480000}), callTimeout);
}

TEST(SntpClient, AStopDuringTheExchangeEndsTheThreadWithoutATrouble) {
    onExchange = [] { stopRequested = 1; };  // as the controller does while the exchange waits
    RunClient({SNTP_SOCKET_ERROR}, SIZE_MAX);
    EXPECT_EQ(std::make_pair(std::vector<uint64_t>{59 * S}, 59 * S), std::make_pair(callAt, VirtualElapsedMs()));
    EXPECT_TRUE(TakeTroubles().empty());
}

namespace {
#ifdef _WIN32
const char WRAP_SERVER[] = "127.0.0.1";  // Wine answers from the whole interface's address
#else
const char WRAP_SERVER[] = "127.0.0.22";
#endif
const int64_t LOCAL_START = FileTimeOf(2036, 2, 7, 6, 27, 0);  // 76 s before the era's wrap
const NtpTimestamp SERVER_START = 44ULL << 32;                 // 2036-02-07 06:29:00, past the wrap
const uint64_t FIRST_EXCHANGE_MS = 59 * S;                     // start delay 60: 59 sleeps

// The real exchange, from the client thread in virtual time, against a fake server on loopback
// whose clock runs two minutes ahead of this machine's and has already wrapped.
class SntpClientAcrossTheWrap : public testing::Test {
protected:
    void SetUp() override {
        NtpInitEpoch();
        SetSntpExchanger(nullptr);
        InstallVirtualTime(LOCAL_START);
        HoldWakeableSleeps(true);  // the socket library's sweeps must not move the clocks
        QueueRandomValues({0, 0});
        ASSERT_EQ(0, fake.Start(WRAP_SERVER, FakeAnswer::GOOD));
        fake.AnswerFromVirtualClock(SERVER_START);
    }
    void TearDown() override {
        fake.Stop();
        stopRequested = 0;
        SetTimeSetListener(nullptr);
        RemoveVirtualTime();
    }
    // Runs the client until the first countdown sleep after its first clock setting (or a day).
    void RunUntilTheClockIsSet() {
        SetSleepHook([](uint32_t) {
            if (!RecordedClockSettings().empty() || VirtualElapsedMs() > 86400 * S) {
                stopRequested = 1;
            }
        });
        std::thread client([] { SntpClientThread(reinterpret_cast<uintptr_t>(WRAP_SERVER)); });
        client.join();
    }
    FakeSntpServer fake;
};
}  // namespace

TEST_F(SntpClientAcrossTheWrap, TheClockIsSetToTheServersTimeAfterTheWrap) {
    RunUntilTheClockIsSet();
    const int64_t serverAtExchange = FileTimeOf(2036, 2, 7, 6, 29, 0) + FIRST_EXCHANGE_MS * FILETIME_TICKS_PER_MS;
    const std::vector<int64_t> settings = RecordedClockSettings();
    ASSERT_EQ(1u, settings.size());
    EXPECT_NEAR(serverAtExchange, settings[0], FILETIME_TICKS_PER_MS) << "FILETIME set, against the server's";
}

TEST_F(SntpClientAcrossTheWrap, TheListenerHearsTheServersTimeAfterTheWrap) {
    SetTimeSetListener([](int64_t unixSeconds) { listenedTime = unixSeconds; });
    RunUntilTheClockIsSet();
    const int64_t serverAtExchange = (FileTimeOf(2036, 2, 7, 6, 29, 59) - UNIX_EPOCH_FILETIME) / 10000000;
    EXPECT_EQ(serverAtExchange, listenedTime.load());
}
