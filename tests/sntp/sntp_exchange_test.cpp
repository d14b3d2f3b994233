// The client exchange: the order of the answer checks, each result code from a fake server on port 123,
// name resolution, the stop, and the clock set to the server's time.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "sntp/sntp_exchange.h"
#include "tests/support/fake_sntp_server.h"
#include "tests/support/scoped_seams.h"

namespace {
#ifdef _WIN32
const char FAKE_ADDRESS[] = "127.0.0.1";  // Wine binds sockets to the whole interface, and wakes late (6.1 ms seen)
const double SETTING_BUDGET_MS = 10.0;
#else
const char FAKE_ADDRESS[] = "127.0.0.21";
const double SETTING_BUDGET_MS = 2.0;  // the millisecond the system time keeps, and one of slack
#endif
const int32_t ANSWERED_MS = 5000;  // answered at once; only a fault would wait this long
const NtpTimestamp UNTOUCHED = 0x0123456789ABCDEFULL;
using namespace std::chrono_literals;
std::vector<std::pair<int64_t, uint64_t>> settings;  // (FILETIME handed over, host clock in NTP then)

class SntpExchangeTest : public testing::Test {
protected:
    void SetUp() override {
        NtpInitEpoch();
        stopRequested = 0;
        const int32_t started = fake.Start(FAKE_ADDRESS, FakeAnswer::GOOD);
        ASSERT_EQ(0, started) << "the fake server's bind";
    }
    void TearDown() override {
        fake.Stop();
        stopRequested = 0;
        EXPECT_EQ(0u, NetLibraryUsers()) << "sockets left";
    }
    SntpResult Exchange(const char* server, int32_t timeoutMs) {
        return SntpExchange(server, timeoutMs, &time, &delay, &stratum);
    }
    // An exchange with the good fake, between two tick stamps.
    void ExchangeBetweenTicks() {
        NtpTickStamp(before);
        result = Exchange(FAKE_ADDRESS, ANSWERED_MS);
        NtpTickStamp(after);
    }
    FakeSntpServer fake;
    NtpTimestamp time = UNTOUCHED;
    NtpTimestamp delay = UNTOUCHED;
    uint32_t stratum = 99;
    SntpResult result = SNTP_OK;
    uint8_t before[8] = {};
    uint8_t after[8] = {};
};
}  // namespace

TEST(SntpAnswerChecks, TheFirstFailingCheckDecides) {
    const uint32_t SERVER = 0x1500007F, OTHER = 0x1600007F;
    uint8_t request[NTP_PACKET_SIZE] = {0x1B};
    StoreBigEndian64(request + NTP_TRANSMIT_OFFSET, 0x0000012345678000ULL);
    const struct {  // a valid answer, with some of it broken
        const char* what;
        uint8_t header, stratum;
        bool zeroTransmit, wrongOriginate;
        uint16_t sourcePort;
        uint32_t source;
        SntpResult expected;
    } cases[] = {
        {"valid", 0x1C, 2, false, false, 123, SERVER, SNTP_OK},
        {"leap 1 and 2 are no alarm", 0x5C, 2, false, false, 123, SERVER, SNTP_OK},
        {"another address before everything", 0xE3, 0, true, true, 123, OTHER, SNTP_INCONSISTENT_ADDRESS},
        {"another port before everything", 0xE3, 0, true, true, 124, SERVER, SNTP_INCONSISTENT_ADDRESS},
        {"originate before mode", 0xE3, 0, true, true, 123, SERVER, SNTP_INCONSISTENT_ADDRESS},
        {"mode before version", 0xE3, 0, true, false, 123, SERVER, SNTP_INVALID_RESPONSE},
        {"symmetric passive is no server", 0x1A, 2, false, false, 123, SERVER, SNTP_INVALID_RESPONSE},
        {"version before leap", 0xE4, 0, true, false, 123, SERVER, SNTP_INCOMPATIBLE_VERSION},
        {"version 4 otherwise valid", 0x24, 2, false, false, 123, SERVER, SNTP_INCOMPATIBLE_VERSION},
        {"leap before stratum", 0xDC, 0, true, false, 123, SERVER, SNTP_NOT_SYNCHRONISED},
        {"stratum before transmit", 0x1C, 0, true, false, 123, SERVER, SNTP_UNKNOWN_ERROR},
        {"zero transmit", 0x1C, 2, true, false, 123, SERVER, SNTP_NOT_SYNCHRONISED},
    };
    for (const auto& c : cases) {
        uint8_t answer[NTP_PACKET_SIZE] = {c.header, c.stratum};
        std::memcpy(answer + NTP_ORIGINATE_OFFSET, request + NTP_TRANSMIT_OFFSET, 8);
        answer[NTP_ORIGINATE_OFFSET] ^= c.wrongOriginate ? 0x80 : 0;
        answer[NTP_TRANSMIT_OFFSET + 7] = c.zeroTransmit ? 0 : 1;  // the lowest fraction bit is enough
        EXPECT_EQ(c.expected, CheckSntpAnswer(request, answer, SERVER, c.source, c.sourcePort)) << c.what;
    }
}

// Version 3, client mode, zeros, and as T1 a tick stamp (its top byte zero) taken during the exchange.
TEST_F(SntpExchangeTest, RequestIsAVersionThreeClientStampedWithTheTick) {
    ExchangeBetweenTicks();
    ASSERT_EQ(SNTP_OK, result);
    const std::vector<uint8_t> request = fake.LastRequest();
    ASSERT_EQ(NTP_PACKET_SIZE, request.size());
    const uint8_t head[41] = {0x1B};
    const uint64_t t1 = LoadBigEndian64(&request[NTP_TRANSMIT_OFFSET]);
    EXPECT_EQ(0, std::memcmp(head, request.data(), sizeof head));
    EXPECT_LE(LoadBigEndian64(before), t1);
    EXPECT_LE(t1, LoadBigEndian64(after));
}

// The fake's T2 = T3: the round trip is T4 - T1 and the time T3 plus half of it, carried to the return.
TEST_F(SntpExchangeTest, TimeIsTheServersPlusHalfTheRoundTrip) {
    ExchangeBetweenTicks();
    ASSERT_EQ(SNTP_OK, result);
    const uint64_t span = LoadBigEndian64(after) - LoadBigEndian64(fake.LastRequest().data() + NTP_TRANSMIT_OFFSET);
    const uint64_t least = FAKE_SERVER_TIME + (delay >> 1);
    EXPECT_LE(delay, span);
    EXPECT_LE(least, time);
    EXPECT_LE(time, least + (span - delay));
    EXPECT_EQ(FAKE_SERVER_STRATUM, stratum);
}

TEST_F(SntpExchangeTest, DelayAndStratumMayBeLeftOut) {
    result = SntpExchange(FAKE_ADDRESS, ANSWERED_MS, &time, nullptr, nullptr);
    EXPECT_EQ(SNTP_OK, result);
}

// The server's time as the host clock 5 s ahead, set at once: within the budget of it.
TEST_F(SntpExchangeTest, TheClockIsSetToTheServersTime) {
    fake.AnswerFromHostClock(5000);
    PlatformDriver recording = systemDriver;
    recording.writeSystemClock = [](int64_t fileTime) { settings.emplace_back(fileTime, HostClockNtp()); };
    settings.clear();
    {
        ScopedPlatformDriver driver(&recording);
        result = Exchange(FAKE_ADDRESS, ANSWERED_MS);
        NtpSetSystemClock(time);
    }
    ASSERT_EQ(SNTP_OK, result);
    ASSERT_EQ(1u, settings.size());
    const int64_t serverThen = NtpToFileTime(settings[0].second + (5000ULL << 32) / 1000u);
    EXPECT_NEAR(serverThen, settings[0].first, SETTING_BUDGET_MS * FILETIME_TICKS_PER_MS)
        << "set " << static_cast<double>(settings[0].first - serverThen) / 1e4 << " ms from the server's time";
}

// The wire adds a port and a length to the checks.
TEST_F(SntpExchangeTest, AFaultyAnswerEndsTheExchangeWithItsCodeAfterOneRequest) {
    const std::pair<FakeAnswer, SntpResult> cases[] = {
        {FakeAnswer::WRONG_ORIGINATE, SNTP_INCONSISTENT_ADDRESS}, {FakeAnswer::OTHER_PORT, SNTP_INCONSISTENT_ADDRESS},
        {FakeAnswer::VERSION_4, SNTP_INCOMPATIBLE_VERSION},       {FakeAnswer::SHORT_47, SNTP_INVALID_RESPONSE},
        {FakeAnswer::LONG_49, SNTP_INVALID_RESPONSE}};
    uint32_t requests = 0;
    for (const auto& [answer, code] : cases) {
        fake.SetAnswer(answer);
        result = Exchange(FAKE_ADDRESS, ANSWERED_MS);
        ++requests;
        EXPECT_EQ(code, result) << int(answer);
        EXPECT_EQ(requests, fake.Requests()) << int(answer);
    }
}

TEST_F(SntpExchangeTest, AFailureLeavesTheOutputsUntouched) {
    fake.SetAnswer(FakeAnswer::WRONG_ORIGINATE);
    result = Exchange(FAKE_ADDRESS, ANSWERED_MS);
    EXPECT_EQ(SNTP_INCONSISTENT_ADDRESS, result);
    EXPECT_EQ(UNTOUCHED, time);
    EXPECT_EQ(UNTOUCHED, delay);
    EXPECT_EQ(99u, stratum);
}

// A name the platform knows is asked at its address; one it does not know (11001: not found, no
// retry) ends the exchange before anything is sent.
TEST_F(SntpExchangeTest, ANameIsResolvedBeforeTheRequest) {
    Ipv4Platform platform = systemIpv4Platform;
    platform.lookupHost = [](const char* name, uint32_t* address) -> int32_t {
        *address = LoopbackAddress(FAKE_ADDRESS);
        return std::strcmp(name, "time.norvik.test") == 0 ? 0 : 11001;
    };
    ScopedIpv4Platform scoped(&platform);
    const SntpResult known = Exchange("time.norvik.test", ANSWERED_MS);
    const SntpResult unknown = Exchange("unknown.norvik.test", ANSWERED_MS);
    EXPECT_EQ(SNTP_OK, known);
    EXPECT_EQ(SNTP_CANNOT_RESOLVE, unknown);
    EXPECT_EQ(1u, fake.Requests());
}

// timeout / 500 + 1 steps of 500 ms (less 50 ms of tick); nothing listening is silence too.
TEST_F(SntpExchangeTest, SilenceEndsAfterTheTimeoutPlusOneStep) {
    fake.SetAnswer(FakeAnswer::SILENT);
    const struct {
        const char* address;
        int32_t timeoutMs;
        std::chrono::milliseconds leastWait;
    } cases[] = {{FAKE_ADDRESS, 499, 450ms}, {FAKE_ADDRESS, 1000, 1450ms}, {"127.0.0.29", 1000, 1450ms}};
    for (const auto& c : cases) {
        const auto start = std::chrono::steady_clock::now();
        result = Exchange(c.address, c.timeoutMs);
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(SNTP_NO_RESPONSE, result) << c.address << ", " << c.timeoutMs << " ms";
        EXPECT_GE(waited, c.leastWait) << c.address << ", " << c.timeoutMs << " ms";
    }
}

// At the next 500 ms step, not after 60 s of silence.
TEST_F(SntpExchangeTest, AStopEndsTheWaitAtTheNextStep) {
    fake.SetAnswer(FakeAnswer::SILENT);
    std::thread client([this] { result = Exchange(FAKE_ADDRESS, 60000); });
    const bool asked = fake.WaitForRequests(1, 10000);
    stopRequested = 1;
    client.join();
    EXPECT_TRUE(asked);
    EXPECT_EQ(SNTP_SOCKET_ERROR, result);
}
