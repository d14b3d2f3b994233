// The server: its answer in every mode, then the thread on a loopback test port: a batch in order,
// each datagram stamped and admitted on its own, trouble cleared per answer, a taken port, a failed wait.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <thread>

#include "net/net_test_seams.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_server.h"
#include "sntp/sntp_test_seams.h"
#include "tests/support/chrony_peer.h"
#include "tests/support/civil_time.h"
#include "tests/support/trouble_recorder.h"
#include "tests/support/virtual_time.h"
#include "tools/loopback_udp.h"
#include "trouble/trouble_queue.h"

namespace {
const uint16_t TEST_PORT = 12323;                 // the server binds every interface; keep off 123
const uint32_t WAIT_MS = 3000, SILENCE_MS = 300;  // bounds a fault; how long a drop is heard for
std::atomic<uint64_t> clockReads{0};
std::atomic<bool> holdNextRead{false}, released{false};

// Never the same stamp twice; the read after holdNextRead holds the server in its batch until released.
void CountingClock(uint8_t* out) {
    const uint64_t read = clockReads.fetch_add(1) + 1;
    while (holdNextRead.load() && !released.load()) std::this_thread::yield();
    holdNextRead = false, StoreBigEndian64(out, read);
}

struct Client {
    explicit Client(const char* address) { EXPECT_EQ(0, OpenLoopbackUdp(&udp, address, 0)); }
    ~Client() { CloseLoopbackUdp(&udp); }
    void Ask(uint64_t id, uint8_t header = 0x1B, int32_t length = NTP_PACKET_SIZE) {
        uint8_t request[512] = {header, 0, 6};
        StoreBigEndian64(request + NTP_TRANSMIT_OFFSET, id);
        SendLoopbackUdp(&udp, request, length, LoopbackAddress("127.0.0.1"), TEST_PORT);
    }
    int32_t Answer(uint32_t waitMs) { return ReceiveLoopbackUdp(&udp, answer, 512, waitMs, nullptr, nullptr); }
    uint64_t Stamp(size_t offset) const { return LoadBigEndian64(answer + offset); }
    LoopbackUdp udp{~0ULL};
    uint8_t answer[512] = {};
};

class SntpServerTest : public testing::Test {
protected:
    void SetUp() override { NtpInitEpoch(), StartTroubleRecorder(), sntpServerPort = TEST_PORT, stopRequested = 0; }
    void TearDown() override { StopServer(), sntpServerPort = SNTP_PORT, StopTroubleRecorder(); }
    void StartServer() {
        SetSntpServerClock(CountingClock), server = std::thread([] { SntpServerThread(0); });
        for (int probe = 0; probe < 30 && (first.Ask(1), first.Answer(SILENCE_MS)) <= 0; ++probe) {}
        while (first.Answer(SILENCE_MS) > 0) {}  // answers to the probes of a slow start
    }
    void StopServer() { if (server.joinable()) stopRequested = 1, server.join(), stopRequested = 0; }
    // Sends request 100 from first, holds the server on its receive stamp, queues, lets go.
    template <typename Queue> void InOneBatch(Queue queue) {
        const uint64_t before = clockReads.load();
        released = false, holdNextRead = true, first.Ask(100);
        for (int ms = 0; ms < 3000 && clockReads.load() == before; ++ms) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        queue(), released = true;
    }
    Client first{"127.0.0.41"};
    std::thread server;
};

// Every wait on a socket fails as a failing select does, which no loopback socket can be made to
// do; the socket calls are the system's again when it goes out of scope.
class FailingWaits {
public:
    FailingWaits() : platform_(systemSocketPlatform) {
        platform_.waitReadable = [](uint64_t, uint32_t) -> int32_t { return -1; };
        previous_ = InstallSocketPlatform(&platform_);
    }
    ~FailingWaits() { InstallSocketPlatform(previous_); }
    FailingWaits(const FailingWaits&) = delete;
    FailingWaits& operator=(const FailingWaits&) = delete;

private:
    SocketPlatform platform_;
    const SocketPlatform* previous_ = nullptr;
};

thread_local bool onServerThread = false;  // the socket library's ageing thread sleeps too
std::vector<uint32_t> pauses;
uint32_t libraryUsersWhilePausing = 0;

// Runs the server thread in virtual time until it has paused count times, and stops it there.
void RunServerUntilPauses(size_t count) {
    pauses.clear(), InstallVirtualTime();
    SetSleepHook([count](uint32_t ms) {
        if (!onServerThread) return;
        pauses.push_back(ms), libraryUsersWhilePausing = NetLibraryUsers(), stopRequested = pauses.size() == count;
    });
    std::thread([] { onServerThread = true, SntpServerThread(0); }).join();
    stopRequested = 0, RemoveVirtualTime();
}
}  // namespace

TEST(SntpServerAnswer, EachModeNamesItsReferenceAndOnlyVersionThreeRequestsOf48BytesGetOne) {
    uint8_t request[512], answer[NTP_PACKET_SIZE];
    std::memset(request, 0xEE, sizeof request);  // the answer takes only poll and transmit from it
    const uint8_t receiveStamp[8] = {1, 2, 3, 4, 5, 6, 7, 8};  // dropped: versions 4, 1, leaps, modes, lengths
    const std::pair<uint8_t, int32_t> dropped[] = {{0x23, 48}, {0x0B, 48}, {0xDB, 48}, {0x5B, 48}, {0x1C, 48},
                                                   {0x1D, 48}, {0x18, 48}, {0x1B, 47}, {0x1B, 49}, {0x1B, 512}};
    for (const auto& d : dropped) {
        request[0] = d.first;
        EXPECT_EQ(0, BuildSntpAnswer(request, d.second, receiveStamp, answer)) << int{d.first} << " " << d.second;
    }
    const uint64_t syncTime = 0xE1E2E3E4E5E6E7E8ULL;
    // Memory order for the stamp, on purpose; only the stratum's low byte counts; 10.1.2.3 as stored.
    lastSyncTime = syncTime, upstreamStratum = 0x103, upstreamAddress = 0x0302010A;
    const struct { int32_t mode, synchronised; uint8_t header, answerHeader, stratum; const char* id; } cases[] = {
        {0, 0, 0x1B, 0x1C, 1, "LOCL"}, {0, 1, 0x19, 0x1A, 1, "LOCL"},
        {1, 0, 0x19, 0xDA, 0, "INIT"}, {2, 0, 0x1B, 0xDC, 0, "INIT"},  // alarm until upstream is reached
        {1, 1, 0x19, 0x1A, 4, "\x0A\x01\x02\x03"}, {2, 1, 0x1B, 0x1C, 1, "TOP "},
    };
    for (const auto& c : cases) {
        serverMode = c.mode, synchronised = c.synchronised, request[0] = c.header;
        uint8_t expected[NTP_PACKET_SIZE] = {c.answerHeader, c.stratum, 0xEE, 0xFA};
        std::memcpy(expected + NTP_REFERENCE_ID_OFFSET, c.id, 4);
        if (c.mode != 0 && c.synchronised != 0) std::memcpy(expected + NTP_REFERENCE_STAMP_OFFSET, &syncTime, 8);
        std::memcpy(expected + NTP_ORIGINATE_OFFSET, request + NTP_TRANSMIT_OFFSET, 8);
        std::memcpy(expected + NTP_RECEIVE_OFFSET, receiveStamp, 8);
        EXPECT_EQ(1, BuildSntpAnswer(request, NTP_PACKET_SIZE, receiveStamp, answer)) << c.mode << c.synchronised;
        EXPECT_EQ(0, std::memcmp(expected, answer, NTP_PACKET_SIZE)) << c.mode << c.synchronised;
    }
}

TEST_F(SntpServerTest, ABatchIsAnsweredInOrderEachWithItsOwnStampsClearingTroubleTwoAndHoldingThePeerLimit) {
    StartServer(), TakeTroubles(), SetSntpTrouble(SNTP_INCONSISTENT_ADDRESS);
    InOneBatch([this] {
        first.Ask(2, 0x23), first.Ask(3, 0x1B, 47), first.Ask(4, 0x1B, 512);  // dropped: clear nothing
        for (uint64_t id = 101; id < 106; ++id) first.Ask(id, id % 2 != 0 ? 0x19 : 0x1B);
    });
    uint64_t lastTransmit = 0;
    for (uint64_t id = 100; id < 106; ++id) {
        ASSERT_EQ(static_cast<int32_t>(NTP_PACKET_SIZE), first.Answer(WAIT_MS));
        uint8_t head[16] = {uint8_t(id % 2 ? 0x1A : 0x1C), 1, 6, 0xFA, 0, 0, 0, 0, 0, 0, 0, 0, 'L', 'O', 'C', 'L'};
        EXPECT_EQ(0, std::memcmp(head, first.answer, sizeof head)) << "header, stratum, poll, precision, root, id";
        const uint64_t receive = first.Stamp(NTP_RECEIVE_OFFSET), transmit = first.Stamp(NTP_TRANSMIT_OFFSET);
        EXPECT_EQ(id, first.Stamp(NTP_ORIGINATE_OFFSET));  // each read, stamped and sent before the next is read
        EXPECT_TRUE(lastTransmit < receive && receive < transmit) << lastTransmit << " " << receive << " " << transmit;
        lastTransmit = transmit;
    }
    EXPECT_EQ(0, first.Answer(SILENCE_MS)) << "nothing else answered";
    StopServer();  // the clear follows the send; after the join it has surely been queued
    const SeenTrouble cleared{SNTP_NO_RESPONSE, TROUBLE_CLEARED};  // one per answer, none per drop
    EXPECT_EQ((std::vector<SeenTrouble>{{SNTP_INCONSISTENT_ADDRESS, TROUBLE_SET}, cleared, cleared, cleared, cleared,
                                        cleared, cleared}), TakeTroubles());

#ifdef _WIN32
    GTEST_SKIP() << "Wine's loopback shows all senders as one";
#endif
    StartServer();  // the limit of peers holds for datagrams late in a batch
    std::vector<std::unique_ptr<Client>> fillers;  // with first, one short of the limit
    for (uint64_t peer = 0; peer + 2 < SNTP_SERVER_PEER_LIMIT; ++peer) {
        fillers.push_back(std::make_unique<Client>(("127.0.1." + std::to_string(2 + peer)).c_str()));
        ASSERT_GT((fillers.back()->Ask(1), fillers.back()->Answer(WAIT_MS)), 0);
    }
    Client last("127.0.2.2"), refused("127.0.2.3");
    InOneBatch([&] { last.Ask(2), refused.Ask(3), first.Ask(4); });
    EXPECT_TRUE(last.Answer(WAIT_MS) > 0 && first.Answer(WAIT_MS) > 0);
    EXPECT_EQ(0, refused.Answer(SILENCE_MS));
}

TEST_F(SntpServerTest, ChronyAskingWithVersionThreeAcceptsTheTime) {
    if (!ChronyInstalled()) GTEST_SKIP() << ChronydPath() << " is not installed";
    SetSntpServerClock(nullptr), server = std::thread([] { SntpServerThread(0); });
    double offset = 0.0;
    std::string output;  // from the clock chrony compares it with: a wrong era, second or scale is far off
    const bool measured = QueryWithChrony("127.0.0.1 port " + std::to_string(TEST_PORT) + " iburst version 3", &offset,
                                          &output);
    if (!measured && output.find("Fatal") != std::string::npos) GTEST_SKIP() << "chronyd could not run:\n" << output;
    ASSERT_TRUE(measured) << output;
    EXPECT_LT(std::abs(offset), 0.25) << output;
}

TEST_F(SntpServerTest, ATakenPortRaisesTroubleEightOnceAndAFailingWaitTroubleOneEachSecond) {
    LoopbackUdp holder{~0ULL};
    ASSERT_EQ(0, OpenLoopbackUdp(&holder, "127.0.0.1", TEST_PORT, false));
    RunServerUntilPauses(3), CloseLoopbackUdp(&holder);
    EXPECT_EQ((std::vector<SeenTrouble>{{SNTP_SERVER_NOT_STARTED, TROUBLE_SET}}), TakeTroubles());
    // The library given back while idle: restarted every minute, the server would pile up sockets.
    EXPECT_EQ(std::make_pair(std::vector<uint32_t>(3, 1000), 0u), std::make_pair(pauses, libraryUsersWhilePausing));

    {
        FailingWaits failing;
        RunServerUntilPauses(5);
    }
    EXPECT_EQ(std::vector<SeenTrouble>(5, SeenTrouble{SNTP_SOCKET_ERROR, TROUBLE_SET}), TakeTroubles());
    EXPECT_EQ(std::make_pair(std::vector<uint32_t>(5, 1000), 1u), std::make_pair(pauses, libraryUsersWhilePausing));
}

namespace {
// The server thread on its own clock (NtpNow through the platform driver) in virtual time that
// stands still: only the seconds that the clock reads decide the stamps.
class SntpServerInLaterYears : public testing::Test {
protected:
    void SetUp() override {
        NtpInitEpoch();
        sntpServerPort = TEST_PORT;
        stopRequested = 0;
        SetSntpServerClock(nullptr);
    }
    void TearDown() override {
        StopServer();
        sntpServerPort = SNTP_PORT;
        RemoveVirtualTime();
    }
    // The server's answer to one request while the clock reads fileTime: false when none came.
    bool AnswerAt(int64_t fileTime, Client* client) {
        InstallVirtualTime(fileTime);
        HoldWakeableSleeps(true);  // the socket library's sweeps must not move the clock
        server = std::thread([] { SntpServerThread(0); });
        for (int probe = 0; probe < 30; ++probe) {
            client->Ask(1);
            if (client->Answer(SILENCE_MS) == static_cast<int32_t>(NTP_PACKET_SIZE)) {
                return true;
            }
        }
        return false;
    }
    void StopServer() {
        if (server.joinable()) {
            stopRequested = 1;
            server.join();
            stopRequested = 0;
        }
    }
    std::thread server;
};
}  // namespace

TEST_F(SntpServerInLaterYears, StampsAfterTheWrapCarryTheErasSeconds) {
    const struct {
        const char* label;
        int64_t fileTime;
        uint64_t seconds;  // on the wire: counted from 2036-02-07 06:28:16
    } rows[] = {
        {"2036-08-01", FileTimeOf(2036, 8, 1), 0x00E7AD00},
        {"2100-01-01", FileTimeOf(2100, 1, 1), 0x7830D580},
    };
    for (const auto& row : rows) {
        Client client("127.0.0.42");
        ASSERT_TRUE(AnswerAt(row.fileTime, &client)) << row.label;
        EXPECT_EQ(row.seconds, client.Stamp(NTP_RECEIVE_OFFSET) >> 32) << row.label << ", receive";
        EXPECT_EQ(row.seconds, client.Stamp(NTP_TRANSMIT_OFFSET) >> 32) << row.label << ", transmit";
        StopServer();
    }
}
