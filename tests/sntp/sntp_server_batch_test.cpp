// The server's batches: the datagrams queued during one wait are each stamped on their own read
// and send, and each passes the peer admission, however late in the batch it comes.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sntp/sntp_server.h"
#include "sntp/sntp_test_seams.h"
#include "tools/loopback_udp.h"

namespace {
const uint16_t TEST_PORT = 12324;
const uint32_t WAIT_MS = 3000, SILENCE_MS = 300;  // bounds a fault; how long a drop is heard for
std::atomic<uint64_t> clockReads{0};
std::atomic<bool> holdNextRead{false}, released{false};

// Never the same stamp twice. The read after holdNextRead keeps the server inside its batch
// until the test has queued the rest, so that they are read in that same batch.
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
    void Ask(uint64_t id) {
        uint8_t request[NTP_PACKET_SIZE] = {0x1B};
        StoreBigEndian64(request + NTP_TRANSMIT_OFFSET, id);
        SendLoopbackUdp(&udp, request, NTP_PACKET_SIZE, LoopbackAddress("127.0.0.1"), TEST_PORT);
    }
    int32_t Answer(uint32_t waitMs) { return ReceiveLoopbackUdp(&udp, answer, 512, waitMs, nullptr, nullptr); }
    uint64_t Stamp(size_t offset) const { return LoadBigEndian64(answer + offset); }
    LoopbackUdp udp{~0ULL};
    uint8_t answer[512] = {};
};

class SntpServerBatchTest : public testing::Test {
protected:
    void SetUp() override {
        SetSntpServerClock(CountingClock);
        sntpServerPort = TEST_PORT;
        server = std::thread([] { SntpServerThread(0); });
        for (int probe = 0; probe < 30 && (first.Ask(1), first.Answer(SILENCE_MS)) <= 0; ++probe) {}
        while (first.Answer(SILENCE_MS) > 0) {}  // answers to the probes of a slow start
    }
    void TearDown() override {
        stopRequested = 1, server.join(), stopRequested = 0;
        sntpServerPort = SNTP_PORT, SetSntpServerClock(nullptr);
    }
    // Sends request 100 from first, holds the server on its receive stamp, queues, lets go.
    template <typename Queue> void InOneBatch(Queue queue) {
        const uint64_t before = clockReads.load();
        released = false, holdNextRead = true, first.Ask(100);
        while (clockReads.load() == before) std::this_thread::yield();
        queue(), released = true;
    }
    Client first{"127.0.0.41"};
    std::thread server;
};

TEST_F(SntpServerBatchTest, EachDatagramOfABatchGetsItsOwnReceiveAndTransmitStamps) {
    InOneBatch([this] { for (uint64_t id = 101; id < 108; ++id) first.Ask(id); });
    uint64_t lastTransmit = 0;
    for (uint64_t id = 100; id < 108; ++id) {
        ASSERT_EQ(static_cast<int32_t>(NTP_PACKET_SIZE), first.Answer(WAIT_MS));
        EXPECT_EQ(id, first.Stamp(NTP_ORIGINATE_OFFSET));
        // Read, stamped, answered and sent before the next datagram is read.
        EXPECT_LT(lastTransmit, first.Stamp(NTP_RECEIVE_OFFSET));
        EXPECT_LT(first.Stamp(NTP_RECEIVE_OFFSET), first.Stamp(NTP_TRANSMIT_OFFSET));
        lastTransmit = first.Stamp(NTP_TRANSMIT_OFFSET);
    }
}

TEST_F(SntpServerBatchTest, TheLimitOfPeersHoldsForDatagramsLateInABatch) {
    Client from("127.0.0.2"), to("127.0.0.3");
    uint32_t seen = 0;
    SendLoopbackUdp(&from.udp, "?", 1, LoopbackAddress("127.0.0.3"), LoopbackUdpPort(&to.udp));
    ReceiveLoopbackUdp(&to.udp, to.answer, 512, WAIT_MS, &seen, nullptr);
    if (seen != LoopbackAddress("127.0.0.2")) GTEST_SKIP() << "this loopback shows all senders as one (Wine)";
    std::vector<std::unique_ptr<Client>> fillers;  // with first, one short of the limit
    for (uint64_t peer = 0; peer + 2 < SNTP_SERVER_PEER_LIMIT; ++peer) {
        fillers.push_back(std::make_unique<Client>(("127.0.1." + std::to_string(2 + peer)).c_str()));
        fillers.back()->Ask(1);
        ASSERT_GT(fillers.back()->Answer(WAIT_MS), 0);
    }
    Client last("127.0.2.2"), refused("127.0.2.3");
    InOneBatch([&] { last.Ask(2), refused.Ask(3), first.Ask(4); });
    EXPECT_GT(last.Answer(WAIT_MS), 0);
    EXPECT_GT(first.Answer(WAIT_MS), 0);
    EXPECT_EQ(0, refused.Answer(SILENCE_MS));
}
}  // namespace
