// The peer registry: admission at the limit, ageing by the sweep, the blocked table, and the
// ageing thread driven in virtual time (held at each sleep by a gate).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "net/net_socket.h"
#include "net/net_test_seams.h"
#include "net/peer_registry.h"
#include "runtime/runtime.h"
#include "tests/support/process_threads.h"
#include "tests/support/virtual_time.h"

namespace {
const int64_t T = 1767225600;  // 2026-01-01 00:00:00 UTC
const auto GATE_PATIENCE = std::chrono::seconds(10);

uint32_t Address(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t bytes[4] = {a, b, c, d};
    uint32_t value = 0;
    memcpy(&value, bytes, sizeof(value));
    return value;
}

// A registry-only socket: never created or opened, just a table owner.
struct TableOwner {
    NetSocket socket;
    explicit TableOwner(uint64_t limit) {
        memset(&socket, 0, sizeof(socket));
        socket.peerLimit = limit;
        RegisterPeerSocket(&socket);
    }
    ~TableOwner() { UnregisterPeerSocket(&socket); }
};

// Holds the sleeping thread until the test lets it go, one sleep at a time.
class SleepGate {
public:
    void Install() {
        SetSleepHook([this](uint32_t) { Pass(); });
    }
    void Pass() {
        std::unique_lock<std::mutex> hold(mutex_);
        ++entered_;
        changed_.notify_all();
        changed_.wait_for(hold, GATE_PATIENCE, [this] { return permits_ > 0 || open_; });
        if (permits_ > 0) {
            --permits_;
        }
    }
    bool WaitEntered(int count) {
        std::unique_lock<std::mutex> hold(mutex_);
        return changed_.wait_for(hold, GATE_PATIENCE, [&] { return entered_ >= count; });
    }
    int Entered() {
        std::lock_guard<std::mutex> hold(mutex_);
        return entered_;
    }
    void Release() {
        std::lock_guard<std::mutex> hold(mutex_);
        ++permits_;
        changed_.notify_all();
    }
    void Open() {
        std::lock_guard<std::mutex> hold(mutex_);
        open_ = true;
        changed_.notify_all();
    }

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int entered_ = 0;
    int permits_ = 0;
    bool open_ = false;
};
class PeerRegistryTest : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(0u, NetLibraryUsers());
        ASSERT_EQ(0u, CountPeerSockets());
    }
    void TearDown() override {
        gate.Open();
        if (libraryUp) {
            DestroyNetSocket(&library);
        }
        SetSleepHook({});
        RemoveVirtualTime();
        EXPECT_EQ(0u, CountPeerSockets());
        EXPECT_EQ(0u, NetLibraryUsers());
    }
    // Starts the library (and its thread) with a NetSocket that never opens.
    void StartLibrary() {
        ASSERT_EQ(0, CreateNetSocket(&library, NET_SOCKET_DATAGRAM));
        libraryUp = true;
    }
    int32_t StopLibrary() {
        libraryUp = false;
        return DestroyNetSocket(&library);
    }

    SleepGate gate;
    NetSocket library;
    bool libraryUp = false;
};
}  // namespace

TEST_F(PeerRegistryTest, AdmitsUpToTheLimitAndKnownSendersAlways) {
    TableOwner server(2);
    EXPECT_EQ(1, AdmitPeerAt(&server.socket, Address(10, 0, 0, 1), T));
    EXPECT_EQ(1, AdmitPeerAt(&server.socket, Address(10, 0, 0, 2), T));
    EXPECT_EQ(0, AdmitPeerAt(&server.socket, Address(10, 0, 0, 3), T));      // full: new sender refused
    EXPECT_EQ(1, AdmitPeerAt(&server.socket, Address(10, 0, 0, 1), T + 4));  // known: admitted and refreshed
    EXPECT_EQ(2u, CountPeers(&server.socket));

    TableOwner closed(0);  // a limit of 0 refuses everyone
    EXPECT_EQ(0, AdmitPeerAt(&closed.socket, Address(10, 0, 0, 1), T));
    EXPECT_EQ(0u, CountPeers(&closed.socket));

    // Every registered table is swept: a peer is kept five seconds and forgotten at six, counted
    // from its last admission.
    TableOwner client(1);
    ASSERT_EQ(1, AdmitPeerAt(&client.socket, Address(10, 0, 0, 7), T + 3));
    SweepPeerRegistry(T + 5);
    EXPECT_EQ(2u, CountPeers(&server.socket));
    SweepPeerRegistry(T + 6);
    EXPECT_EQ(1u, CountPeers(&server.socket));  // 10.0.0.2 goes, the refreshed 10.0.0.1 stays
    EXPECT_EQ(1, AdmitPeerAt(&server.socket, Address(10, 0, 0, 3), T + 6));
    EXPECT_EQ(1u, CountPeers(&client.socket));
    SweepPeerRegistry(T + 9);
    EXPECT_EQ(0u, CountPeers(&client.socket));
    EXPECT_EQ(2u, CountPeers(&server.socket));
    SweepPeerRegistry(T + 10);
    EXPECT_EQ(1u, CountPeers(&server.socket));

    // A sweep with a clock that went backwards forgets nothing.
    SweepPeerRegistry(T);
    SweepPeerRegistry(INT64_MIN);
    EXPECT_EQ(1u, CountPeers(&server.socket));
    SweepPeerRegistry(INT64_MAX);
    EXPECT_EQ(0u, CountPeers(&server.socket));
}

TEST_F(PeerRegistryTest, BlockedPairsMatchAddressAndPortAndAgeAfterThirtySeconds) {
    InstallVirtualTime();
    const int64_t blockedAt = ReadWallClock(nullptr);
    BlockPeer(Address(10, 0, 0, 1), 123);
    EXPECT_EQ(1, IsPeerBlocked(Address(10, 0, 0, 1), 123));
    EXPECT_EQ(0, IsPeerBlocked(Address(10, 0, 0, 1), 124));
    EXPECT_EQ(0, IsPeerBlocked(Address(10, 0, 0, 2), 123));
    EXPECT_EQ(0, IsPeerBlocked(Address(1, 0, 0, 10), 123));  // byte order matters

    SweepPeerRegistry(blockedAt + 30);
    EXPECT_EQ(1, IsPeerBlocked(Address(10, 0, 0, 1), 123));
    SweepPeerRegistry(blockedAt + 31);
    EXPECT_EQ(0, IsPeerBlocked(Address(10, 0, 0, 1), 123));
    EXPECT_EQ(0u, CountBlockedPeers());
}

// The thread sweeps once per one-second sleep: a peer admitted at t survives the sweep at t + 5
// and is gone after the one at t + 6.
TEST_F(PeerRegistryTest, AgeingThreadForgetsAPeerAtTheSixthSweep) {
    InstallVirtualTime();
    gate.Install();
    StartLibrary();
    ASSERT_TRUE(gate.WaitEntered(1));  // first sweep done at t, now asleep
    {
        TableOwner client(1);
        ASSERT_EQ(1, AdmitPeer(&client.socket, Address(10, 0, 0, 1)));
        for (int second = 1; second <= 5; ++second) {
            gate.Release();
            ASSERT_TRUE(gate.WaitEntered(second + 1));
            EXPECT_EQ(1u, CountPeers(&client.socket)) << "sweep at t + " << second;
        }
        gate.Release();
        ASSERT_TRUE(gate.WaitEntered(7));
        EXPECT_EQ(0u, CountPeers(&client.socket)) << "sweep at t + 6";
    }
    gate.Open();
    EXPECT_EQ(0, StopLibrary());
    EXPECT_EQ(0, PeerThreadRunning());
}

// The last destroy wakes the sleeping thread and joins it: it does not return while the thread
// is still inside its sleep (held here by the gate), and the woken sleep lets no time pass.
TEST_F(PeerRegistryTest, ShutdownWakesTheSleepingThreadAndJoinsIt) {
    InstallVirtualTime();
    gate.Install();
    StartLibrary();
    ASSERT_TRUE(gate.WaitEntered(1));
    EXPECT_EQ(1, PeerThreadRunning());
    const uint64_t asleepAt = VirtualElapsedMs();

    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        StopLibrary();
        destroyed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(destroyed.load()) << "the stop must wait for the thread to end";
    gate.Release();
    destroyer.join();
    EXPECT_EQ(0, PeerThreadRunning());
    EXPECT_EQ(0u, CountAgeingThreads());
    EXPECT_EQ(1, gate.Entered());  // the thread left its loop without sleeping again
    EXPECT_EQ(asleepAt, VirtualElapsedMs()) << "a woken sleep does not run out";
}

// Sockets created, used and destroyed from many threads at random moments, so that the first
// create and the last destroy race in every order: while any socket lives there is exactly one
// ageing thread, never two, and after the last destroy none, and no thread of the process is
// left behind. The seed is printed, so a failure can be replayed.
TEST_F(PeerRegistryTest, RacingCreatesAndDestroysKeepExactlyOneAgeingThread) {
    const int WORKERS = 6;
    const int CYCLES = 150;
    const uint32_t seed = static_cast<uint32_t>(std::random_device{}());
    SCOPED_TRACE("seed " + std::to_string(seed));
    const size_t threadsBefore = CountProcessThreads();
    std::atomic<bool> done{false};
    std::atomic<int> tooMany{0};
    std::atomic<int> missing{0};
    std::thread sampler([&] {
        while (!done.load()) {
            if (PeerThreadRunning() > 1 || CountAgeingThreads() > 1) {
                tooMany.fetch_add(1);
            }
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> workers;
    for (int worker = 0; worker < WORKERS; ++worker) {
        workers.emplace_back([&, worker] {
            std::mt19937 random(seed + static_cast<uint32_t>(worker));
            for (int cycle = 0; cycle < CYCLES; ++cycle) {
                NetSocket socket;
                if (CreateNetSocket(&socket, NET_SOCKET_DATAGRAM) != 0) {
                    missing.fetch_add(1);
                    continue;
                }
                if (CountAgeingThreads() != 1) {
                    missing.fetch_add(1);
                }
                if (random() % 2 == 0) {
                    OpenNetSocket(&socket, 0, 1);
                    RegisterPeerSocket(&socket);
                    AdmitPeer(&socket, Address(10, 0, 0, static_cast<uint8_t>(worker)));
                    CloseNetSocket(&socket);
                }
                std::this_thread::sleep_for(std::chrono::microseconds(random() % 300));
                DestroyNetSocket(&socket);
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    done = true;
    sampler.join();
    EXPECT_EQ(0, tooMany.load());
    EXPECT_EQ(0, missing.load());
    EXPECT_EQ(0u, NetLibraryUsers());
    EXPECT_EQ(0u, CountAgeingThreads());
    EXPECT_EQ(0, PeerThreadRunning());
    EXPECT_EQ(0u, CountPeerSockets());
    EXPECT_EQ(threadsBefore, CountProcessThreads());
}
