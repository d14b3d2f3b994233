// The server thread on a test port of the loopback: its answers byte for byte, the requests it
// drops, the trouble it clears per answer, a real NTP client (chrony) accepting its time, and
// the idle thread of a server whose port is taken. The reference fields of the upstream modes,
// which the deployed service never uses, are pinned on the answer builder itself.
#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>

#include "net/net_socket.h"
#include "net/net_test_seams.h"
#include "sntp/ntp_time.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_server.h"
#include "sntp/sntp_test_seams.h"
#include "sntp/sntp_troubles.h"
#include "tests/support/chrony_peer.h"
#include "tools/loopback_udp.h"
#include "tests/support/trouble_recorder.h"
#include "tests/support/virtual_time.h"
#include "trouble/trouble_queue.h"

namespace {
const uint16_t TEST_PORT = 12323;         // the server binds every interface; keep off 123
const char CLIENT_ADDRESS[] = "127.0.0.31";
const char SERVER_ADDRESS[] = "127.0.0.1";
const uint32_t ANSWER_WAIT_MS = 3000;     // an answer comes at once; this only bounds a fault
const uint32_t START_PATIENCE_MS = 10000;
const int32_t CAPACITY = 512;
const uint64_t ONE_SECOND = 1ULL << 32;

class SntpServerTest : public testing::Test {
protected:
    void SetUp() override {
        NtpInitEpoch();
        StartTroubleRecorder();
        sntpServerPort = TEST_PORT;
        stopRequested = 0;
        ASSERT_EQ(0, OpenLoopbackUdp(&client, CLIENT_ADDRESS, 0));
    }
    void TearDown() override {
        StopServer();
        CloseLoopbackUdp(&client);
        sntpServerPort = SNTP_PORT;
        StopTroubleRecorder();
    }

    // Starts the server thread and waits until it answers.
    void StartServer(uint64_t upstream = 0) {
        server = std::thread([upstream] { SntpServerThread(upstream); });
        uint8_t request[NTP_PACKET_SIZE] = {0x1B};
        for (uint32_t waited = 0; waited < START_PATIENCE_MS; waited += 100) {
            Send(request, NTP_PACKET_SIZE);
            if (Receive(100) > 0) {
                while (Receive(200) > 0) {
                    // answers to earlier probes of a slow start
                }
                return;
            }
        }
        FAIL() << "the server never answered";
    }

    void StopServer() {
        if (server.joinable()) {
            stopRequested = 1;
            server.join();  // within one select step
            stopRequested = 0;
        }
    }

    void Send(const uint8_t* data, uint32_t length) {
        SendLoopbackUdp(&client, data, static_cast<int32_t>(length), LoopbackAddress(SERVER_ADDRESS), TEST_PORT);
    }
    // The next answer's length (0 when none came within waitMs) into answer.
    int32_t Receive(uint32_t waitMs) {
        return ReceiveLoopbackUdp(&client, answer, CAPACITY, waitMs, nullptr, nullptr);
    }

    LoopbackUdp client{~0ULL};
    std::thread server;
    uint8_t answer[CAPACITY] = {};
};

// A request with first byte header, a poll byte and a recognisable transmit stamp.
void MakeRequest(uint8_t* request, uint8_t header, uint8_t poll, uint64_t transmit) {
    std::memset(request, 0, NTP_PACKET_SIZE);
    request[0] = header;
    request[2] = poll;
    request[3] = 0xEC;
    request[12] = 'X';  // the answer takes nothing else from the request
    StoreBigEndian64(request + NTP_TRANSMIT_OFFSET, transmit);
}
}  // namespace

TEST_F(SntpServerTest, AnswersClientAndSymmetricRequestsByteForByte) {
    StartServer();
    const struct {
        uint8_t header;
        uint8_t poll;
        uint8_t answerHeader;
    } cases[] = {{0x1B, 0x0A, 0x1C}, {0x19, 0x11, 0x1A}};
    uint64_t transmit = 0x1122334455667788ULL;
    for (const auto& c : cases) {
        uint8_t request[NTP_PACKET_SIZE];
        MakeRequest(request, c.header, c.poll, ++transmit);
        uint8_t before[8];
        NtpNow(before);
        Send(request, NTP_PACKET_SIZE);
        ASSERT_EQ(static_cast<int32_t>(NTP_PACKET_SIZE), Receive(ANSWER_WAIT_MS));
        uint8_t after[8];
        NtpNow(after);

        const uint8_t fixed[16] = {c.answerHeader, 1, c.poll, 0xFA, 0, 0, 0, 0, 0, 0, 0, 0, 'L', 'O', 'C', 'L'};
        EXPECT_EQ(0, std::memcmp(fixed, answer, sizeof fixed)) << "header, stratum, poll, precision, root, id";
        EXPECT_EQ(0u, LoadBigEndian64(answer + 16)) << "reference stamp";
        EXPECT_EQ(transmit, LoadBigEndian64(answer + NTP_ORIGINATE_OFFSET));
        const uint64_t received = LoadBigEndian64(answer + NTP_RECEIVE_OFFSET);
        const uint64_t sent = LoadBigEndian64(answer + NTP_TRANSMIT_OFFSET);
        EXPECT_LE(LoadBigEndian64(before), received);
        EXPECT_LE(received, sent);
        EXPECT_LE(sent, LoadBigEndian64(after));
        EXPECT_EQ(0u, received & 3);
        EXPECT_EQ(0u, sent & 3);
    }
}

TEST_F(SntpServerTest, DropsWhatIsNotAVersionThreeRequestOfFortyEightBytes) {
    StartServer();
    const struct {
        const char* what;
        uint8_t header;
        uint32_t length;
    } dropped[] = {
        {"version 4 client", 0x23, 48}, {"version 1 client", 0x0B, 48}, {"leap 3", 0xDB, 48},
        {"leap 1", 0x5B, 48},           {"server mode", 0x1C, 48},      {"broadcast mode", 0x1D, 48},
        {"47 bytes", 0x1B, 47},         {"49 bytes", 0x1B, 49},          {"512 bytes", 0x1B, 512},
    };
    uint8_t request[CAPACITY];
    for (const auto& d : dropped) {
        std::memset(request, 0, sizeof request);
        MakeRequest(request, d.header, 6, 0x0101010101010101ULL);
        Send(request, d.length);
    }
    // The server works in arrival order, so the first answer to arrive after these requests
    // must be the one to this good request.
    MakeRequest(request, 0x1B, 6, 0x0202020202020202ULL);
    Send(request, NTP_PACKET_SIZE);
    ASSERT_EQ(static_cast<int32_t>(NTP_PACKET_SIZE), Receive(ANSWER_WAIT_MS));
    EXPECT_EQ(0x0202020202020202ULL, LoadBigEndian64(answer + NTP_ORIGINATE_OFFSET));
    EXPECT_EQ(0, Receive(200)) << "nothing else answered";
}

TEST_F(SntpServerTest, EachAnswerClearsTroubleTwoWhileAnyTroubleIsActive) {
    StartServer();
    TakeTroubles();
    SetSntpTrouble(SNTP_INCONSISTENT_ADDRESS);
    uint8_t request[NTP_PACKET_SIZE];
    for (uint8_t header : {0x23, 0x1B, 0x1B}) {  // the dropped one clears nothing
        MakeRequest(request, header, 6, 0x0303030303030303ULL);
        Send(request, NTP_PACKET_SIZE);
    }
    ASSERT_EQ(static_cast<int32_t>(NTP_PACKET_SIZE), Receive(ANSWER_WAIT_MS));
    ASSERT_EQ(static_cast<int32_t>(NTP_PACKET_SIZE), Receive(ANSWER_WAIT_MS));
    StopServer();  // the clear follows the send; after the join it has surely been queued
    const SeenTrouble set6{SNTP_INCONSISTENT_ADDRESS, TROUBLE_SET};
    const SeenTrouble cleared2{SNTP_NO_RESPONSE, TROUBLE_CLEARED};
    EXPECT_EQ((std::vector<SeenTrouble>{set6, cleared2, cleared2}), TakeTroubles());
}

TEST_F(SntpServerTest, ChronyAskingWithVersionThreeAcceptsTheTime) {
    if (!ChronyInstalled()) {
        GTEST_SKIP() << CHRONYD_PATH << " is not installed";
    }
    StartServer();
    double offset = 0.0;
    std::string output;
    const bool measured =
        QueryWithChrony(std::string(SERVER_ADDRESS) + " port " + std::to_string(TEST_PORT) + " iburst version 3",
                        &offset, &output);
    if (!measured && output.find("Fatal") != std::string::npos) {
        GTEST_SKIP() << "chronyd could not run:\n" << output;
    }
    ASSERT_TRUE(measured) << output;
    // Served from the very clock chrony compares it with: only the stamps' resolution and, on a
    // loaded machine under Wine, the socket calls' delays separate them (tens of milliseconds
    // measured with the end-to-end suites running beside); a wrong era or second is far beyond.
    EXPECT_LT(std::abs(offset), 0.25) << output;
}

namespace {
thread_local bool onServerThread = false;  // the socket library's ageing thread sleeps too
std::vector<uint32_t> pauses;
uint32_t libraryUsersWhilePausing = 0;

// Runs the server thread in virtual time until it has paused count times, then stops it there:
// a thread that never paused would never stop.
void RunServerUntilPauses(size_t count) {
    pauses.clear();
    InstallVirtualTime();
    SetSleepHook([count](uint32_t milliseconds) {
        if (onServerThread) {
            pauses.push_back(milliseconds);
            libraryUsersWhilePausing = NetLibraryUsers();
            if (pauses.size() == count) {
                stopRequested = 1;
            }
        }
    });
    std::thread thread([] {
        onServerThread = true;
        SntpServerThread(0);
    });
    thread.join();
    stopRequested = 0;
    RemoveVirtualTime();
}
}  // namespace

TEST_F(SntpServerTest, APortAlreadyTakenRaisesTroubleEightOnceAndIdlesUntilStopped) {
    LoopbackUdp holder{~0ULL};
    ASSERT_EQ(0, OpenLoopbackUdp(&holder, SERVER_ADDRESS, TEST_PORT, false));
    RunServerUntilPauses(3);
    CloseLoopbackUdp(&holder);
    EXPECT_EQ((std::vector<SeenTrouble>{{SNTP_SERVER_NOT_STARTED, TROUBLE_SET}}), TakeTroubles());
    EXPECT_EQ(std::vector<uint32_t>(3, 1000), pauses);
    // What the failed start opened is given back while it idles: restarted every minute, it would
    // otherwise leave a socket and a library reference behind each time.
    EXPECT_EQ(0u, libraryUsersWhilePausing);
}

TEST_F(SntpServerTest, AFailingWaitRaisesTroubleOneOncePerSecond) {
    failNetSocketWaits = 1;
    RunServerUntilPauses(5);
    failNetSocketWaits = 0;
    EXPECT_EQ(std::vector<uint32_t>(5, 1000), pauses);
    const std::vector<SeenTrouble> raised(5, SeenTrouble{SNTP_SOCKET_ERROR, TROUBLE_SET});
    EXPECT_EQ(raised, TakeTroubles());
    EXPECT_EQ(1u, libraryUsersWhilePausing);  // the socket stays open through the failures
}

TEST(SntpServerAnswer, TheUpstreamModesNameTheirReference) {
    NtpInitEpoch();
    uint8_t request[NTP_PACKET_SIZE];
    MakeRequest(request, 0x19, 6, 0x0404040404040404ULL);
    const uint8_t receiveStamp[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    uint8_t answer[NTP_PACKET_SIZE];
    const uint64_t syncTime = 0xE1E2E3E4E5E6E7E8ULL;
    lastSyncTime = syncTime;
    upstreamStratum = 0x103;  // only the low byte counts
    upstreamAddress = 0x0302010A;  // 10.1.2.3 as stored, network order

    serverMode = 1;
    synchronised = 0;
    ASSERT_EQ(1, BuildSntpAnswer(request, NTP_PACKET_SIZE, receiveStamp, answer));
    EXPECT_EQ(0xDA, answer[0]) << "alarm until the upstream has been reached";
    EXPECT_EQ(0, answer[1]);
    EXPECT_EQ(0, std::memcmp("INIT", answer + 12, 4));
    EXPECT_EQ(0u, LoadBigEndian64(answer + 16));
    EXPECT_EQ(0, std::memcmp(receiveStamp, answer + NTP_RECEIVE_OFFSET, 8));

    synchronised = 1;
    ASSERT_EQ(1, BuildSntpAnswer(request, NTP_PACKET_SIZE, receiveStamp, answer));
    EXPECT_EQ(0x1A, answer[0]);
    EXPECT_EQ(4, answer[1]) << "one below the upstream";
    const uint8_t upstreamId[4] = {10, 1, 2, 3};
    EXPECT_EQ(0, std::memcmp(upstreamId, answer + 12, 4));
    uint64_t reference;
    std::memcpy(&reference, answer + 16, 8);
    EXPECT_EQ(syncTime, reference) << "kept in memory order";

    serverMode = 2;
    ASSERT_EQ(1, BuildSntpAnswer(request, NTP_PACKET_SIZE, receiveStamp, answer));
    EXPECT_EQ(1, answer[1]);
    EXPECT_EQ(0, std::memcmp("TOP ", answer + 12, 4));
    std::memcpy(&reference, answer + 16, 8);
    EXPECT_EQ(syncTime, reference);

    serverMode = 0;
    synchronised = 0;
    lastSyncTime = 0;
    upstreamStratum = 0;
    upstreamAddress = 0;
}
