// The server's answer, then its thread on scripted sockets.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "net/net_socket.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_server.h"
#include "tests/support/civil_time.h"
#include "tests/support/scripted_sockets.h"
#include "tests/support/trouble_recorder.h"
#include "tests/support/virtual_time.h"
#include "trouble/trouble_queue.h"

namespace {
const uint16_t CLIENT_PORT = 50123;
// a.b.c.d in network order on the little-endian hosts we build for.
uint32_t Address(uint32_t a, uint32_t b, uint32_t c, uint32_t d) { return a | b << 8 | c << 16 | d << 24; }

const uint32_t FIRST = Address(127, 0, 0, 41);

ScriptedDatagram Request(uint32_t from, uint64_t id) {
    ScriptedDatagram request{from, CLIENT_PORT, std::vector<uint8_t>(NTP_PACKET_SIZE, 0)};
    request.bytes[0] = 0x1B;
    StoreBigEndian64(&request.bytes[NTP_TRANSMIT_OFFSET], id);
    return request;
}

class SntpServerThreadTest : public testing::Test {
protected:
    void SetUp() override {
        NtpInitEpoch();
        StartTroubleRecorder();
    }
    void TearDown() override { StopTroubleRecorder(); }
    // Until every queued datagram is read; its batch ends before the stop.
    void Serve() {
        std::thread server([] { SntpServerThread(0); });
        for (int ms = 0; ms < 10000 && !sockets.Drained(); ++ms) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        stopRequested = 1;
        server.join();
        stopRequested = 0;
    }
    ScriptedSockets sockets;
};

}  // namespace

TEST(SntpServerAnswer, OnlyVersionThreeRequestsOf48BytesGetOne) {
    uint8_t request[NTP_PACKET_SIZE + 1] = {};
    uint8_t answer[NTP_PACKET_SIZE];
    const uint8_t receiveStamp[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    // Version 4, leap 1, server mode, one byte short, one too many.
    const std::pair<uint8_t, int32_t> dropped[] = {{0x23, 48}, {0x5B, 48}, {0x1C, 48}, {0x1B, 47}, {0x1B, 49}};
    for (const auto& [header, length] : dropped) {
        request[0] = header;
        const int32_t answered = BuildSntpAnswer(request, length, receiveStamp, answer);
        EXPECT_EQ(0, answered) << int{header} << ", " << length << " bytes";
    }
}

// Upstream: the alarm until it is reached; then its address (10.1.2.3 as stored), its stratum's low
// byte plus one, and the stamp in memory order, on purpose.
TEST(SntpServerAnswer, EachModeNamesItsReference) {
    uint8_t request[NTP_PACKET_SIZE];
    uint8_t answer[NTP_PACKET_SIZE];
    std::memset(request, 0xEE, sizeof request);
    const uint8_t receiveStamp[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    const uint64_t syncTime = 0xE1E2E3E4E5E6E7E8ULL;
    lastSyncTime = syncTime;
    upstreamStratum = 0x103;
    upstreamAddress = 0x0302010A;
    const struct {
        const char* label;
        int32_t mode, synchronised;
        uint8_t header, answerHeader, stratum;
        const char* id;
    } cases[] = {
        {"local clock, client", 0, 0, 0x1B, 0x1C, 1, "LOCL"},
        {"upstream not reached", 1, 0, 0x19, 0xDA, 0, "INIT"},
        {"upstream reached", 1, 1, 0x19, 0x1A, 4, "\x0A\x01\x02\x03"},
    };
    for (const auto& c : cases) {
        serverMode = c.mode;
        synchronised = c.synchronised;
        request[0] = c.header;
        uint8_t expected[NTP_PACKET_SIZE] = {c.answerHeader, c.stratum, 0xEE, 0xFA};
        std::memcpy(expected + NTP_REFERENCE_ID_OFFSET, c.id, 4);
        if (c.mode != 0 && c.synchronised != 0) std::memcpy(expected + NTP_REFERENCE_STAMP_OFFSET, &syncTime, 8);
        std::memcpy(expected + NTP_ORIGINATE_OFFSET, request + NTP_TRANSMIT_OFFSET, 8);
        std::memcpy(expected + NTP_RECEIVE_OFFSET, receiveStamp, 8);
        const int32_t answered = BuildSntpAnswer(request, NTP_PACKET_SIZE, receiveStamp, answer);
        EXPECT_EQ(1, answered) << c.label;
        EXPECT_EQ(0, std::memcmp(expected, answer, NTP_PACKET_SIZE)) << c.label;
    }
    serverMode = SERVER_MODE_LOCAL_CLOCK;
    synchronised = 0;
}

// The 202nd sender, late in the same batch as a known one, is not answered.
TEST_F(SntpServerThreadTest, ThePeerLimitHoldsLateInABatch) {
    for (uint32_t peer = 0; peer < SNTP_SERVER_PEER_LIMIT + 1; ++peer) {
        sockets.Queue(Request(Address(127, 0, 1 + peer / 250, 1 + peer % 250), peer));
    }
    sockets.Queue(Request(Address(127, 0, 1, 1), 999));
    Serve();
    const std::vector<ScriptedDatagram> answers = sockets.Sent();
    const uint32_t refused = Address(127, 0, 1, 1 + SNTP_SERVER_PEER_LIMIT);
    const auto answeredRefused = std::count_if(answers.begin(), answers.end(), [&](const ScriptedDatagram& answer) {
        return answer.address == refused;
    });
    EXPECT_EQ(SNTP_SERVER_PEER_LIMIT + 1, answers.size()) << "every admitted sender, the first one twice";
    EXPECT_EQ(0, answeredRefused);
}

// Open fails: trouble 8 once, the library given back while idle (restarted every minute, the
// server would pile up sockets). Wait fails: trouble 1 each second.
TEST_F(SntpServerThreadTest, ASocketFailureIsReportedAndPausesASecond) {
    const struct {
        const char* label;
        int32_t openError;  // 10048: WSAEADDRINUSE
        bool waitsFail;
        std::vector<SeenTrouble> troubles;
        uint32_t libraryUsers;
    } cases[] = {
        {"open fails", 10048, false, {{SNTP_SERVER_NOT_STARTED, TROUBLE_SET}}, 0},
        {"wait fails", 0, true, std::vector<SeenTrouble>(3, SeenTrouble{SNTP_SOCKET_ERROR, TROUBLE_SET}), 1},
    };
    for (const auto& c : cases) {
        ScopedVirtualTime time;
        HoldWakeableSleeps(true);
        sockets.FailOpens(c.openError);
        sockets.FailWaits(c.waitsFail);
        std::vector<uint32_t> pauses;
        uint32_t libraryUsers = 0;
        ScopedSleepHook hook([&](uint32_t ms) {
            pauses.push_back(ms);
            libraryUsers = NetLibraryUsers();
            stopRequested = pauses.size() == 3 ? 1 : 0;
        });
        SntpServerThread(0);
        stopRequested = 0;
        const std::vector<SeenTrouble> troubles = TakeTroubles();
        EXPECT_EQ(c.troubles, troubles) << c.label;
        EXPECT_EQ(std::vector<uint32_t>(3, 1000), pauses) << c.label;
        EXPECT_EQ(c.libraryUsers, libraryUsers) << c.label;
    }
}

// On its own clock, in virtual time that stands still.
TEST_F(SntpServerThreadTest, StampsAfterTheWrapCarryTheErasSeconds) {
    const uint64_t secondsOf20360801 = 0x00E7AD00;
    ScopedVirtualTime time(FileTimeOf(2036, 8, 1));
    HoldWakeableSleeps(true);
    sockets.Queue(Request(FIRST, 1));
    Serve();
    const std::vector<ScriptedDatagram> answers = sockets.Sent();
    ASSERT_EQ(1u, answers.size());
    EXPECT_EQ(secondsOf20360801, LoadBigEndian64(&answers[0].bytes[NTP_RECEIVE_OFFSET]) >> 32);
    EXPECT_EQ(secondsOf20360801, LoadBigEndian64(&answers[0].bytes[NTP_TRANSMIT_OFFSET]) >> 32);
}
