// The server's batches: the datagrams queued during one wait are each stamped on their own read
// and send, and each passes the peer admission, however late in the batch it comes.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "sntp/ntp_time.h"
#include "sntp/sntp_server.h"
#include "sntp/sntp_test_seams.h"
#include "tools/loopback_udp.h"

namespace {
const uint16_t TEST_PORT = 12324;
const uint32_t ANSWER_WAIT_MS = 3000;  // bounds a fault only; answers come at once
const uint32_t SILENCE_MS = 300;       // how long a dropped request is listened for
std::atomic<uint64_t> clockReads{0};
std::atomic<bool> holdNextRead{false};
std::atomic<bool> released{false};

// Never the same stamp twice. The read after holdNextRead is set keeps the server inside its
// batch until the test has queued the rest, so that they are read in that same batch.
void CountingClock(uint8_t* out) {
    const uint64_t read = clockReads.fetch_add(1) + 1;
    if (holdNextRead.exchange(false)) {
        while (!released.load()) std::this_thread::yield();
    }
    StoreBigEndian64(out, read);
}

struct Client {
    explicit Client(const char* address) { EXPECT_EQ(0, OpenLoopbackUdp(&udp, address, 0)); }
    ~Client() { CloseLoopbackUdp(&udp); }
    void Ask(uint64_t transmit) {
        uint8_t request[NTP_PACKET_SIZE] = {0x1B};
        StoreBigEndian64(request + NTP_TRANSMIT_OFFSET, transmit);
        SendLoopbackUdp(&udp, request, NTP_PACKET_SIZE, LoopbackAddress("127.0.0.1"), TEST_PORT);
    }
    int32_t Answer(uint32_t waitMs) { return ReceiveLoopbackUdp(&udp, answer, sizeof answer, waitMs, nullptr, nullptr); }
    LoopbackUdp udp{~0ULL};
    uint8_t answer[512] = {};
};

class SntpServerBatchTest : public testing::Test {
protected:
    void SetUp() override {
        SetSntpServerClock(CountingClock);
        sntpServerPort = TEST_PORT;
        stopRequested = 0;
        server = std::thread([] { SntpServerThread(0); });
        for (int probe = 0; probe < 30; ++probe) {
            first.Ask(1);
            if (first.Answer(SILENCE_MS) > 0) break;
        }
        while (first.Answer(SILENCE_MS) > 0) {}  // answers to the probes of a slow start
    }
    void TearDown() override {
        stopRequested = 1;
        server.join();
        stopRequested = 0;
        sntpServerPort = SNTP_PORT;
        SetSntpServerClock(nullptr);
    }
    // Sends one request from first, holds the server on its stamp, runs queue, and lets go.
    template <typename Queue> void InOneBatch(Queue queue) {
        released = false;
        const uint64_t before = clockReads.load();
        holdNextRead = true;
        first.Ask(100);
        while (clockReads.load() == before) std::this_thread::yield();
        queue();
        released = true;
    }
    Client first{"127.0.0.41"};
    std::thread server;
};

TEST_F(SntpServerBatchTest, EachDatagramOfABatchGetsItsOwnReceiveAndTransmitStamps) {
    InOneBatch([this] { for (uint64_t i = 101; i < 108; ++i) first.Ask(i); });
    uint64_t lastTransmit = 0;
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(static_cast<int32_t>(NTP_PACKET_SIZE), first.Answer(ANSWER_WAIT_MS));
        EXPECT_EQ(100u + i, LoadBigEndian64(first.answer + NTP_ORIGINATE_OFFSET));
        const uint64_t received = LoadBigEndian64(first.answer + NTP_RECEIVE_OFFSET);
        const uint64_t transmit = LoadBigEndian64(first.answer + NTP_TRANSMIT_OFFSET);
        // Read, answered and sent before the next datagram is read.
        EXPECT_LT(lastTransmit, received);
        EXPECT_LT(received, transmit);
        lastTransmit = transmit;
    }
}

TEST_F(SntpServerBatchTest, TheLimitOfPeersHoldsForDatagramsLateInABatch) {
    Client from("127.0.0.2"), to("127.0.0.3");
    SendLoopbackUdp(&from.udp, "?", 1, LoopbackAddress("127.0.0.3"), LoopbackUdpPort(&to.udp));
    uint32_t seen = 0;
    ReceiveLoopbackUdp(&to.udp, to.answer, sizeof to.answer, ANSWER_WAIT_MS, &seen, nullptr);
    if (seen != LoopbackAddress("127.0.0.2")) {
        GTEST_SKIP() << "this loopback shows every sender as one address (Wine)";
    }
    std::vector<Client*> fillers;  // with first: one short of the limit
    for (uint64_t peer = 0; peer + 2 < SNTP_SERVER_PEER_LIMIT; ++peer) {
        char address[32];
        std::snprintf(address, sizeof address, "127.0.1.%d", 2 + static_cast<int>(peer));
        fillers.push_back(new Client(address));
        fillers.back()->Ask(1);
        ASSERT_GT(fillers.back()->Answer(ANSWER_WAIT_MS), 0) << address;
    }
    Client last("127.0.2.2"), refused("127.0.2.3");
    InOneBatch([&] { last.Ask(2), refused.Ask(3), first.Ask(4); });
    EXPECT_GT(last.Answer(ANSWER_WAIT_MS), 0);
    EXPECT_GT(first.Answer(ANSWER_WAIT_MS), 0);
    EXPECT_EQ(0, refused.Answer(SILENCE_MS));
    for (Client* filler : fillers) delete filler;
}
}  // namespace
