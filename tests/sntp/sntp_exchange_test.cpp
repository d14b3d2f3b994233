// The client exchange: the answer's checks, then the exchange on scripted sockets.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "sntp/sntp_exchange.h"
#include "tests/support/scoped_seams.h"
#include "tests/support/sntp_answers.h"
#include "tests/support/virtual_time.h"
#include "tools/loopback_udp.h"

namespace {
const char SERVER_TEXT[] = "127.0.0.21";
const NtpTimestamp SERVER_TIME = 3976214400ULL << 32;  // 2026-01-01 00:00:00 UTC
const uint32_t ROUND_TRIP_MS = 10;

class SntpExchangeTest : public testing::Test {
protected:
    void SetUp() override {
        NtpInitEpoch();
        HoldWakeableSleeps(true);  // the socket library's sweeps must not move the clocks
    }
    void TearDown() override {
        EXPECT_EQ(0u, NetLibraryUsers()) << "sockets left";
    }
    void ServerAnswers(std::function<void(ScriptedDatagram*)> damage = [](ScriptedDatagram*) {}) {
        sockets.OnSend([this, damage](const ScriptedDatagram& request) {
            AdvanceVirtualTime(ROUND_TRIP_MS);
            ScriptedDatagram answer = GoodAnswerTo(request, SERVER_TIME);
            damage(&answer);
            sockets.Queue(answer);
        });
    }
    SntpResult Exchange(const char* server = SERVER_TEXT, int32_t timeoutMs = 5000) {
        return SntpExchange(server, timeoutMs, &time, &delay, &stratum);
    }
    ScopedVirtualTime virtualTime;
    ScriptedSockets sockets;
    NtpTimestamp time = 0;
    NtpTimestamp delay = 0;
    uint32_t stratum = 0;
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
        {"valid, leap 1 and 2 no alarm", 0x5C, 2, false, false, 123, SERVER, SNTP_OK},
        {"another address before everything", 0xE3, 0, true, true, 123, OTHER, SNTP_INCONSISTENT_ADDRESS},
        {"another port before everything", 0xE3, 0, true, true, 124, SERVER, SNTP_INCONSISTENT_ADDRESS},
        {"originate before mode", 0xE3, 0, true, true, 123, SERVER, SNTP_INCONSISTENT_ADDRESS},
        {"mode before version", 0xE3, 0, true, false, 123, SERVER, SNTP_INVALID_RESPONSE},
        {"version before leap", 0xE4, 0, true, false, 123, SERVER, SNTP_INCOMPATIBLE_VERSION},
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

// Zeros but the header and T1.
TEST_F(SntpExchangeTest, RequestIsAVersionThreeClientStampedWithTheTick) {
    ServerAnswers();
    std::vector<uint8_t> expected(NTP_PACKET_SIZE, 0);
    expected[0] = 0x1B;
    NtpTickStamp(&expected[NTP_TRANSMIT_OFFSET]);
    Exchange();
    const std::vector<ScriptedDatagram> sent = sockets.Sent();
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(expected, sent[0].bytes);
}

// The server's T2 = T3: the round trip is T4 - T1.
TEST_F(SntpExchangeTest, TimeIsTheServersPlusHalfTheRoundTrip) {
    ServerAnswers();
    const SntpResult result = Exchange();
    EXPECT_EQ(SNTP_OK, result);
    EXPECT_EQ(MicrosToNtp(ROUND_TRIP_MS * 1000), delay);
    EXPECT_EQ(SERVER_TIME + delay / 2, time);
    EXPECT_EQ(GOOD_ANSWER_STRATUM, stratum);
}

// The wire adds a port and a length to the checks.
TEST_F(SntpExchangeTest, AFaultyAnswerEndsTheExchangeWithItsCode) {
    const struct {
        const char* fault;
        std::function<void(ScriptedDatagram*)> damage;
        SntpResult result;
    } cases[] = {
        {"another port", [](ScriptedDatagram* a) { a->port = 124; }, SNTP_INCONSISTENT_ADDRESS},
        {"47 bytes", [](ScriptedDatagram* a) { a->bytes.pop_back(); }, SNTP_INVALID_RESPONSE},
        {"49 bytes", [](ScriptedDatagram* a) { a->bytes.push_back(0); }, SNTP_INVALID_RESPONSE},
    };
    for (const auto& c : cases) {
        ServerAnswers(c.damage);
        const SntpResult result = Exchange();
        EXPECT_EQ(c.result, result) << c.fault;
    }
}

// An unknown name (11001: not found) ends the exchange before anything is sent.
TEST_F(SntpExchangeTest, ANameIsResolvedBeforeTheRequest) {
    ServerAnswers();
    Ipv4Platform platform = systemIpv4Platform;
    platform.lookupHost = [](const char* name, uint32_t* address) -> int32_t {
        *address = LoopbackAddress(SERVER_TEXT);
        return std::strcmp(name, "time.norvik.test") == 0 ? 0 : 11001;
    };
    ScopedIpv4Platform scoped(&platform);
    const SntpResult known = Exchange("time.norvik.test");
    const SntpResult unknown = Exchange("unknown.norvik.test");
    const std::vector<ScriptedDatagram> sent = sockets.Sent();
    EXPECT_EQ(SNTP_OK, known);
    EXPECT_EQ(SNTP_CANNOT_RESOLVE, unknown);
    ASSERT_EQ(1u, sent.size());
    EXPECT_EQ(LoopbackAddress(SERVER_TEXT), sent[0].address);
}

// timeout / 500 + 1 waits of 500 ms: a time-out below 500 ms still waits once.
TEST_F(SntpExchangeTest, SilenceEndsAfterTheTimeoutPlusOneStep) {
    const struct {
        int32_t timeoutMs;
        std::vector<uint32_t> waitsMs;
    } cases[] = {{499, {500}}, {1000, {500, 500, 500}}};
    for (const auto& c : cases) {
        ScriptedSockets silent;
        const SntpResult result = Exchange(SERVER_TEXT, c.timeoutMs);
        EXPECT_EQ(SNTP_NO_RESPONSE, result) << c.timeoutMs << " ms";
        EXPECT_EQ(c.waitsMs, silent.WaitsMs()) << c.timeoutMs << " ms";
    }
}
