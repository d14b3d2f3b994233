// The client thread's schedule in virtual time: a fake exchange records when it was called and
// with which time-out, and moves the virtual clock by the wait a real exchange would have taken.
// The thread runs until its clock passes a horizon and is then held in its next one-second
// sleep, so each test asserts a timeline of (virtual time, event) and ends the thread itself.
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include "runtime/platform.h"
#include "runtime/runtime.h"
#include "sntp/ntp_time.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_test_seams.h"
#include "sntp/sntp_troubles.h"
#include "tests/support/trouble_recorder.h"
#include "tests/support/virtual_time.h"
#include "trouble/trouble_queue.h"

namespace {
const char SERVER_TEXT[] = "10.1.2.3";  // never contacted: the exchange is the fake
const uint64_t SECOND_MS = 1000;
const uint32_t COUNTDOWN_SLEEP_MS = 1000;
const uint32_t REAL_PATIENCE_MS = 10000;  // bound on every real-time wait of these tests
// 2026-01-01 00:00:00.5 UTC: the listener rounds it up to the next whole second.
const NtpTimestamp SERVER_TIME = (3976214400ULL << 32) + 0x80000000ULL;
const int64_t SERVER_TIME_UNIX = 1767225601;
const NtpTimestamp SERVER_DELAY = 0x00000000028F5C28ULL;  // 10 ms
const uint32_t SERVER_STRATUM = 3;

struct ExchangeCall {
    uint64_t atMs;      // virtual time when the exchange began
    int32_t timeoutMs;
    uint32_t mask;      // troubleMask as the exchange began
};

// The fake exchange: results in script order (the last one repeats), and an optional gate that
// holds one call until the test opens it.
std::mutex fakeMutex;
std::condition_variable fakeChanged;
std::deque<SntpResult> script;
std::vector<ExchangeCall> calls;
size_t gatedCall = SIZE_MAX;
bool gateOpen = true;

SntpResult FakeExchange(const char*, int32_t timeoutMs, NtpTimestamp* time, NtpTimestamp* delay,
                        uint32_t* stratum) {
    SntpResult result;
    {
        std::unique_lock<std::mutex> hold(fakeMutex);
        calls.push_back(ExchangeCall{VirtualElapsedMs(), timeoutMs, troubleMask.load()});
        fakeChanged.notify_all();
        if (calls.size() - 1 == gatedCall) {
            fakeChanged.wait(hold, [] { return gateOpen; });
        }
        result = script.front();
        if (script.size() > 1) {
            script.pop_front();
        }
    }
    if (result == SNTP_OK) {
        *time = SERVER_TIME;
        *delay = SERVER_DELAY;
        *stratum = SERVER_STRATUM;
    } else if (result == SNTP_NO_RESPONSE) {
        // A silent server costs (timeout / 500 + 1) waits of 500 ms.
        AdvanceVirtualTime(static_cast<uint64_t>(timeoutMs / 500 + 1) * 500);
    }
    return result;
}

std::atomic<int64_t> listenedTime{0};
void ListenForClockSet(int64_t unixSeconds) { listenedTime = unixSeconds; }

class SntpClientTest : public testing::Test {
protected:
    void SetUp() override {
        NtpInitEpoch();
        InstallVirtualTime();
        StartTroubleRecorder();
        SetSntpExchanger(FakeExchange);
        std::lock_guard<std::mutex> hold(fakeMutex);
        script.clear();
        calls.clear();
        gatedCall = SIZE_MAX;
        gateOpen = true;
        horizonMs = 0;
        parked = false;
        lastSyncTime = 0;
        lastDelay = 0;
        upstreamStratum = 0;
        lastResult = 0;
        listenedTime = 0;
    }

    void TearDown() override {
        StopClient();
        SetSntpExchanger(nullptr);
        SetTimeSetListener(nullptr);
        StopTroubleRecorder();
        RemoveVirtualTime();
    }

    // Starts the client thread with the given rand() values after seeding; it runs until its
    // virtual clock reaches horizon, then waits in its next countdown sleep.
    void StartClient(std::vector<SntpResult> results, uint64_t horizon, std::vector<int32_t> randoms = {0, 0}) {
        {
            std::lock_guard<std::mutex> hold(fakeMutex);
            script.assign(results.begin(), results.end());
            horizonMs = horizon;
        }
        QueueRandomValues(randoms);
        SetSleepHook([this](uint32_t milliseconds) {
            if (milliseconds != COUNTDOWN_SLEEP_MS) {
                return;  // SntpSyncNow's short pauses on the test's own thread
            }
            std::unique_lock<std::mutex> hold(fakeMutex);
            if (VirtualElapsedMs() < horizonMs) {
                return;
            }
            parked = true;
            fakeChanged.notify_all();
            fakeChanged.wait(hold, [this] { return !parked; });
        });
        client = std::thread([] { SntpClientThread(reinterpret_cast<uintptr_t>(SERVER_TEXT)); });
    }

    // Waits (real time, bounded) until the client is held at the horizon.
    ::testing::AssertionResult WaitParked() {
        std::unique_lock<std::mutex> hold(fakeMutex);
        if (fakeChanged.wait_for(hold, std::chrono::milliseconds(REAL_PATIENCE_MS), [this] { return parked; })) {
            return ::testing::AssertionSuccess();
        }
        return ::testing::AssertionFailure() << "the client never reached " << horizonMs << " ms";
    }

    // Lets the held client run on to a new horizon.
    void RunOnTo(uint64_t horizon) {
        std::lock_guard<std::mutex> hold(fakeMutex);
        horizonMs = horizon;
        parked = false;
        fakeChanged.notify_all();
    }

    void StopClient() {
        if (!client.joinable()) {
            return;
        }
        stopRequested = 1;
        {
            std::lock_guard<std::mutex> hold(fakeMutex);
            horizonMs = UINT64_MAX;
            parked = false;
            gateOpen = true;
            fakeChanged.notify_all();
        }
        client.join();
        EXPECT_EQ(0, clientRunning.load());
        SetSleepHook(nullptr);
        stopRequested = 0;
    }

    std::vector<ExchangeCall> Calls() {
        std::lock_guard<std::mutex> hold(fakeMutex);
        return calls;
    }

    std::thread client;
    uint64_t horizonMs = 0;
    bool parked = false;
};

template <typename Field>
std::vector<Field> Each(const std::vector<ExchangeCall>& list, Field ExchangeCall::*field) {
    std::vector<Field> values;
    for (const ExchangeCall& call : list) {
        values.push_back(call.*field);
    }
    return values;
}

const SeenTrouble SET_2{SNTP_NO_RESPONSE, TROUBLE_SET};
const SeenTrouble CLEARED_2{SNTP_NO_RESPONSE, TROUBLE_CLEARED};
const SeenTrouble SET_6{SNTP_INCONSISTENT_ADDRESS, TROUBLE_SET};
}  // namespace

TEST_F(SntpClientTest, TheStartDelayComesFromTheSecondRandomValue) {
    // Countdowns of 60 and 119 mean 59 and 118 one-second sleeps; the first value is discarded.
    const struct {
        std::vector<int32_t> randoms;
        uint64_t firstExchangeMs;
    } cases[] = {{{32767, 0}, 59 * SECOND_MS}, {{0, 32767}, 118 * SECOND_MS}};
    for (const auto& c : cases) {
        SetUp();
        StartClient({SNTP_OK}, 200 * SECOND_MS, c.randoms);
        ASSERT_TRUE(WaitParked());
        const std::vector<ExchangeCall> list = Calls();
        ASSERT_EQ(1u, list.size());
        EXPECT_EQ(c.firstExchangeMs, list[0].atMs);
        EXPECT_EQ(5000, list[0].timeoutMs);
        // Seeded from the wall clock at start.
        EXPECT_EQ(static_cast<uint32_t>((VIRTUAL_START_FILETIME - UNIX_EPOCH_FILETIME) / 10000000),
                  RecordedRandomSeed());
        StopClient();
    }
}

TEST_F(SntpClientTest, ASilentServerGetsFiveAttemptsThenTroubleTwoAndANewLadderLater) {
    // Each silent attempt takes its time-out plus one step: 5.5, 60.5, 120.5, 240.5, 480.5 s.
    const std::vector<uint64_t> ladder = {0, 5500, 66000, 186500, 427000};
    const uint64_t ladderLength = 907500;
    const std::vector<int32_t> timeouts = {5000, 60000, 120000, 240000, 480000};
    StartClient({SNTP_NO_RESPONSE}, 59000 + ladderLength + 1);
    ASSERT_TRUE(WaitParked());
    std::vector<ExchangeCall> list = Calls();
    ASSERT_EQ(5u, list.size());
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(59000 + ladder[i], list[i].atMs) << "attempt " << i + 1;
        EXPECT_EQ(timeouts[i], list[i].timeoutMs) << "attempt " << i + 1;
        EXPECT_EQ(0u, list[i].mask) << "no trouble before the fifth silence";
    }
    EXPECT_EQ((std::vector<SeenTrouble>{SET_2}), TakeTroubles());
    EXPECT_EQ(SNTP_NO_RESPONSE, lastResult.load());

    // The next ladder 1199 s after the first ended, the same again.
    const uint64_t second = 59000 + ladderLength + 1199000;
    RunOnTo(second + 1);
    ASSERT_TRUE(WaitParked());
    list = Calls();
    ASSERT_EQ(10u, list.size());
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(second + ladder[i], list[5 + i].atMs) << "attempt " << i + 1;
        EXPECT_EQ(timeouts[i], list[5 + i].timeoutMs) << "attempt " << i + 1;
    }
    EXPECT_EQ((std::vector<SeenTrouble>{SET_2}), TakeTroubles());
    EXPECT_EQ(0, synchronised.load());
    EXPECT_TRUE(RecordedClockSettings().empty());
}

// An unusable answer raises its trouble at once and again at each attempt twenty minutes apart;
// a success sets the clock, clears only trouble 2 and waits a day.
TEST_F(SntpClientTest, FailuresRetryEveryTwentyMinutesAndASuccessWaitsADay) {
    SetTimeSetListener(ListenForClockSet);
    const uint64_t retry = 1199000;
    StartClient({SNTP_INCONSISTENT_ADDRESS, SNTP_INCONSISTENT_ADDRESS, SNTP_OK, SNTP_OK},
                59000 + 2 * retry + 86399000 + 1);
    ASSERT_TRUE(WaitParked());
    const std::vector<ExchangeCall> list = Calls();
    EXPECT_EQ((std::vector<uint64_t>{59000, 59000 + retry, 59000 + 2 * retry, 59000 + 2 * retry + 86399000}),
              Each(list, &ExchangeCall::atMs));
    EXPECT_EQ((std::vector<int32_t>{5000, 5000, 5000, 5000}), Each(list, &ExchangeCall::timeoutMs));
    // Each success clears trouble 2, reported because trouble 6 is active; trouble 6 stays.
    EXPECT_EQ((std::vector<SeenTrouble>{SET_6, SET_6, CLEARED_2, CLEARED_2}), TakeTroubles());
    EXPECT_EQ(1u << SNTP_INCONSISTENT_ADDRESS, troubleMask.load());

    EXPECT_EQ(SNTP_OK, lastResult.load());
    EXPECT_EQ(1, synchronised.load());
    EXPECT_EQ(SERVER_TIME, lastSyncTime.load());
    EXPECT_EQ(SERVER_DELAY, lastDelay.load());
    EXPECT_EQ(SERVER_STRATUM, upstreamStratum.load());
    // Set outright to the estimate, once per success.
    const std::vector<int64_t> settings = RecordedClockSettings();
    ASSERT_EQ(2u, settings.size());
    EXPECT_EQ(NtpToFileTime(SERVER_TIME), settings[0]);
    EXPECT_EQ(SERVER_TIME_UNIX, listenedTime.load());
}

TEST_F(SntpClientTest, StoringOneInTheCountdownBringsTheExchangeWithinASecond) {
    StartClient({SNTP_OK}, 1000 * SECOND_MS);
    ASSERT_TRUE(WaitParked());
    ASSERT_EQ(1u, Calls().size());
    const uint64_t asked = VirtualElapsedMs();
    syncCountdown = 1;
    RunOnTo(asked + 10 * SECOND_MS);
    ASSERT_TRUE(WaitParked());
    const std::vector<ExchangeCall> list = Calls();
    ASSERT_EQ(2u, list.size());
    EXPECT_LE(list[1].atMs - asked, SECOND_MS);
}

TEST_F(SntpClientTest, SyncNowReportsTheFirstSilenceWhileTheLadderGoesOn) {
    EXPECT_EQ(SNTP_CLIENT_NOT_STARTED, SntpSyncNow());
    StartClient({SNTP_OK, SNTP_NO_RESPONSE}, 100 * SECOND_MS);
    ASSERT_TRUE(WaitParked());
    {
        std::lock_guard<std::mutex> hold(fakeMutex);
        gatedCall = 2;  // the second attempt of the coming ladder waits for the test
        gateOpen = false;
    }
    std::atomic<SntpResult> result{SNTP_OK};
    std::thread asker([&] { result = SntpSyncNow(); });
    // The request must be in place before the held client reads its countdown again: a store
    // that lands between its read and its write is lost (the countdown has one writer at a time).
    for (uint32_t waited = 0; syncCountdown.load() != 1 && waited < REAL_PATIENCE_MS; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    RunOnTo(100 * SECOND_MS + 86400 * SECOND_MS);
    bool gated;
    {
        std::unique_lock<std::mutex> hold(fakeMutex);
        gated = fakeChanged.wait_for(hold, std::chrono::milliseconds(REAL_PATIENCE_MS), [] { return calls.size() == 3; });
    }
    if (!gated) {
        StopClient();  // ends the client, and with it the waiting request (9)
        asker.join();
        FAIL() << "the requested exchange never came";
    }
    asker.join();
    EXPECT_EQ(SNTP_NO_RESPONSE, result.load()) << "answered while the second attempt is still waiting";
    {
        std::lock_guard<std::mutex> hold(fakeMutex);
        EXPECT_EQ(5000, calls[1].timeoutMs);
        EXPECT_EQ(60000, calls[2].timeoutMs);
        horizonMs = calls[2].atMs + 1;
        gateOpen = true;
        fakeChanged.notify_all();
    }
    ASSERT_TRUE(WaitParked());
    EXPECT_EQ(5u, Calls().size() - 1) << "a whole ladder after the request";
}

TEST_F(SntpClientTest, AStopDuringTheExchangeEndsTheThreadWithoutATrouble) {
    SetSntpExchanger([](const char*, int32_t, NtpTimestamp*, NtpTimestamp*, uint32_t*) -> SntpResult {
        stopRequested = 1;  // as the controller does while the exchange waits
        return SNTP_SOCKET_ERROR;
    });
    StartClient({}, UINT64_MAX);
    client.join();
    EXPECT_EQ(0, clientRunning.load());
    EXPECT_TRUE(TakeTroubles().empty());
    EXPECT_EQ(59000u, VirtualElapsedMs());
    stopRequested = 0;
}
