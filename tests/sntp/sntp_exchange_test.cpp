// The client exchange: the order of the answer checks, each result code from a fake server on port 123,
// name resolution, the stop, the clock set to the server's time, and chrony serving the host's clock.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "net/net_test_seams.h"
#include "runtime/runtime_test_seams.h"
#include "sntp/sntp_exchange.h"
#include "tests/support/chrony_peer.h"
#include "tests/support/fake_sntp_server.h"

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
    void SetUp() override { NtpInitEpoch(), stopRequested = 0; }
    void TearDown() override { fake.Stop(), stopRequested = 0; EXPECT_EQ(0u, NetLibraryUsers()) << "sockets left"; }
    SntpResult Exchange(const char* server, int32_t timeoutMs) {  // a failure leaves every output untouched
        time = delay = UNTOUCHED, stratum = 99;
        const SntpResult result = SntpExchange(server, timeoutMs, &time, &delay, &stratum);
        EXPECT_TRUE(result == SNTP_OK || (time == UNTOUCHED && delay == UNTOUCHED && stratum == 99)) << result;
        return result;
    }
    FakeSntpServer fake;
    NtpTimestamp time = 0, delay = 0;
    uint32_t stratum = 0;
};
}  // namespace

TEST(SntpAnswerChecks, TheFirstFailingCheckDecides) {
    const uint32_t SERVER = 0x1500007F, OTHER = 0x1600007F;
    uint8_t request[NTP_PACKET_SIZE] = {0x1B};
    StoreBigEndian64(request + NTP_TRANSMIT_OFFSET, 0x0000012345678000ULL);
    const struct {  // a valid answer, with some of it broken
        const char* what; uint8_t header, stratum; bool zeroTransmit, wrongOriginate; uint16_t sourcePort;
        uint32_t source; SntpResult expected;
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

// The fake's T2 = T3: the round trip is T4 - T1 and the time T3 plus half of it, carried to the return.
TEST_F(SntpExchangeTest, AGoodAnswerSetsTheClockToTheServersTimeAFaultyOneEndsWithItsCodeAndNamesAreResolved) {
    ASSERT_EQ(0, fake.Start(FAKE_ADDRESS, FakeAnswer::GOOD));
    uint8_t before[8], after[8];
    ASSERT_EQ(SNTP_OK, (NtpTickStamp(before), Exchange(FAKE_ADDRESS, ANSWERED_MS)));
    NtpTickStamp(after);
    const std::vector<uint8_t> request = fake.LastRequest();  // client mode 3, and the tick stamp as T1
    ASSERT_EQ(NTP_PACKET_SIZE, request.size());
    const uint8_t head[41] = {0x1B};  // version 3 client, zeros, and a tick stamp's zero top byte
    EXPECT_EQ(0, std::memcmp(head, request.data(), sizeof head));
    const uint64_t t1 = LoadBigEndian64(&request[NTP_TRANSMIT_OFFSET]), span = LoadBigEndian64(after) - t1;
    EXPECT_TRUE(LoadBigEndian64(before) <= t1 && t1 <= LoadBigEndian64(after) && delay <= span) << t1 << " " << delay;
    const uint64_t least = FAKE_SERVER_TIME + (delay >> 1);
    EXPECT_TRUE(least <= time && time <= least + (span - delay) && stratum == FAKE_SERVER_STRATUM) << time - least;
    EXPECT_EQ(SNTP_OK, SntpExchange(FAKE_ADDRESS, ANSWERED_MS, &time, nullptr, nullptr));  // optional outputs

    PlatformDriver recording = systemDriver;
    recording.writeSystemClock = [](int64_t fileTime) { settings.emplace_back(fileTime, HostClockNtp()); };
    const PlatformDriver* previous = InstallPlatformDriver(&recording);
    fake.AnswerFromHostClock(5000);
    if (Exchange(FAKE_ADDRESS, ANSWERED_MS) == SNTP_OK) NtpSetSystemClock(time);
    InstallPlatformDriver(previous);
    ASSERT_EQ(1u, settings.size());
    const int64_t serverThen = NtpToFileTime(settings[0].second + (5000ULL << 32) / 1000u);
    EXPECT_NEAR(serverThen, settings[0].first, SETTING_BUDGET_MS * FILETIME_TICKS_PER_MS)
        << "set " << static_cast<double>(settings[0].first - serverThen) / 1e4 << " ms from the server's time";
    EXPECT_EQ(3u, fake.Requests());

    // A faulty first answer ends the exchange with its code, after one request; the wire adds port and length.
    const std::pair<FakeAnswer, SntpResult> cases[] = {
        {FakeAnswer::WRONG_ORIGINATE, SNTP_INCONSISTENT_ADDRESS}, {FakeAnswer::OTHER_PORT, SNTP_INCONSISTENT_ADDRESS},
        {FakeAnswer::VERSION_4, SNTP_INCOMPATIBLE_VERSION},       {FakeAnswer::SHORT_47, SNTP_INVALID_RESPONSE},
        {FakeAnswer::LONG_49, SNTP_INVALID_RESPONSE}};
    uint32_t requests = 3;
    for (const auto& c : cases) {
        EXPECT_EQ(c.second, (fake.SetAnswer(c.first), Exchange(FAKE_ADDRESS, ANSWERED_MS))) << int(c.first);
        EXPECT_EQ(++requests, fake.Requests());
    }

    fake.SetAnswer(FakeAnswer::GOOD);
    Ipv4Platform platform = systemIpv4Platform;
    platform.lookupHost = [](const char* name, uint32_t* address) -> int32_t {  // 11001: not found, no retry
        return *address = LoopbackAddress(FAKE_ADDRESS), std::strcmp(name, "time.norvik.test") == 0 ? 0 : 11001;
    };
    const Ipv4Platform* previousPlatform = InstallIpv4Platform(&platform);
    EXPECT_EQ(SNTP_OK, Exchange("time.norvik.test", ANSWERED_MS));
    EXPECT_EQ(SNTP_CANNOT_RESOLVE, Exchange("unknown.norvik.test", ANSWERED_MS));  // and nothing sent
    EXPECT_EQ(requests + 1, fake.Requests());
    InstallIpv4Platform(previousPlatform);
}

TEST_F(SntpExchangeTest, SilenceEndsAfterTheTimeoutPlusOneStepAndAStopAtTheNextStep) {
    ASSERT_EQ(0, fake.Start(FAKE_ADDRESS, FakeAnswer::SILENT));
    // timeout / 500 + 1 steps of 500 ms (less 50 ms of tick); nothing listening is silence too.
    const struct { const char* address; int32_t timeoutMs; std::chrono::milliseconds leastWait; } cases[] = {
        {FAKE_ADDRESS, 499, 450ms}, {FAKE_ADDRESS, 1000, 1450ms}, {"127.0.0.29", 1000, 1450ms}};
    for (const auto& c : cases) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(SNTP_NO_RESPONSE, Exchange(c.address, c.timeoutMs));
        EXPECT_GE(std::chrono::steady_clock::now() - start, c.leastWait) << c.timeoutMs;
    }
    EXPECT_EQ(2u, fake.Requests());

    SntpResult result = SNTP_OK;
    std::thread client([&] { result = Exchange(FAKE_ADDRESS, 60000); });
    ASSERT_TRUE(fake.WaitForRequests(3, 10000));
    stopRequested = 1, client.join();
    EXPECT_EQ(SNTP_SOCKET_ERROR, result);  // at the next step, not after 60 s of silence
}

TEST_F(SntpExchangeTest, ChronyServingTheHostClockGivesTheHostTime) {
    if (!ChronyInstalled()) GTEST_SKIP() << ChronydPath() << " is not installed";
    ChronyServer chrony;
    if (!chrony.Start("127.0.0.25")) GTEST_SKIP() << "chronyd did not start:\n" << chrony.Log();
    uint8_t before[8], after[8];
    ASSERT_EQ(SNTP_OK, (NtpNow(before), Exchange("127.0.0.25", ANSWERED_MS))) << chrony.Log();
    NtpNow(after);
    EXPECT_TRUE(LoadBigEndian64(before) - 42949672 <= time && time <= LoadBigEndian64(after) + 42949672);  // 10 ms
    EXPECT_EQ(std::make_pair(1u, true), std::make_pair(stratum, delay < 1ULL << 32));
}
