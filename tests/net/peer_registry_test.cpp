// The peer registry: admission at the limit, ageing by the sweep, the blocked table, and the
// ageing thread driven in virtual time (held at each sleep until the test lets it through).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "net/net_socket.h"
#include "net/net_test_seams.h"
#include "net/peer_registry.h"
#include "runtime/runtime.h"
#include "tests/support/process_threads.h"
#include "tests/support/virtual_time.h"

namespace {
const int64_t T = 1767225600;  // 2026-01-01 00:00:00 UTC, where virtual time starts

// A registry-only socket: never created or opened, just a table owner. Addresses are opaque here.
struct TableOwner : NetSocket {
    explicit TableOwner(uint64_t limit) : NetSocket{} {
        peerLimit = limit;
        RegisterPeerSocket(this);
    }
    ~TableOwner() { UnregisterPeerSocket(this); }
};

// Polls for at most ten seconds.
bool WaitUntil(const std::function<bool()>& reached) {
    for (int tick = 0; tick < 10000 && !reached(); ++tick) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return reached();
}
}  // namespace

TEST(PeerRegistry, AdmitsUpToTheLimitAndForgetsPeersAfterFiveSecondsAndBlockedPairsAfterThirty) {
    InstallVirtualTime();
    BlockPeer(1, 123);  // at T
    EXPECT_EQ(1, IsPeerBlocked(1, 123));
    EXPECT_EQ(0, IsPeerBlocked(1, 124));
    EXPECT_EQ(0, IsPeerBlocked(2, 123));
    TableOwner closed(0);
    TableOwner server(2);
    EXPECT_EQ(0, AdmitPeerAt(&closed, 1, T));
    EXPECT_EQ(1, AdmitPeerAt(&server, 1, T));
    EXPECT_EQ(1, AdmitPeerAt(&server, 2, T));
    EXPECT_EQ(0, AdmitPeerAt(&server, 3, T));      // full: a new sender is refused
    EXPECT_EQ(1, AdmitPeerAt(&server, 1, T + 4));  // known: admitted and refreshed
    SweepPeerRegistry(T + 5);
    EXPECT_EQ(2u, CountPeers(&server));
    SweepPeerRegistry(T + 6);
    EXPECT_EQ(1u, CountPeers(&server));  // 2 goes at six seconds, the refreshed 1 stays
    EXPECT_EQ(1, AdmitPeerAt(&server, 3, T + 6));
    SweepPeerRegistry(T + 10);
    EXPECT_EQ(1u, CountPeers(&server));
    SweepPeerRegistry(INT64_MIN);  // a clock gone backwards forgets nothing
    EXPECT_EQ(1u, CountPeers(&server));
    SweepPeerRegistry(T + 30);
    EXPECT_EQ(1, IsPeerBlocked(1, 123));
    SweepPeerRegistry(T + 31);
    EXPECT_EQ(0u, CountBlockedPeers());
    EXPECT_EQ(0u, CountPeers(&closed));
    RemoveVirtualTime();
}

// The thread sweeps once per one-second sleep. The last destroy wakes it and joins it: it does
// not return while the thread is held inside its sleep, and the woken sleep lets no time pass.
TEST(PeerRegistry, AgeingThreadSweepsEachSecondAndTheLastDestroyWakesAndJoinsIt) {
    static std::atomic<int> entered{0};  // static: the hook may outlive a failed test
    static std::atomic<int> permits{0};
    entered = permits = 0;
    InstallVirtualTime();
    SetSleepHook([](uint32_t) {
        entered.fetch_add(1);
        WaitUntil([] { return permits.load() > 0; });
        permits.fetch_sub(1);
    });
    NetSocket library;  // starts the library and its thread; never opened
    ASSERT_EQ(0, CreateNetSocket(&library, NET_SOCKET_DATAGRAM));
    EXPECT_TRUE(WaitUntil([] { return entered.load() == 1; }));  // first sweep done at T, now asleep
    TableOwner client(1);
    EXPECT_EQ(1, AdmitPeer(&client, 1));
    for (int second = 1; second <= 6; ++second) {
        permits.fetch_add(1);
        EXPECT_TRUE(WaitUntil([second] { return entered.load() == second + 1; }));
        EXPECT_EQ(second < 6 ? 1u : 0u, CountPeers(&client)) << "sweep at T + " << second;
    }
    const uint64_t asleepAt = VirtualElapsedMs();
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] {
        DestroyNetSocket(&library);
        destroyed = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(destroyed.load()) << "the stop must wait for the thread to end";
    permits.fetch_add(1);
    destroyer.join();
    EXPECT_EQ(0, PeerThreadRunning());
    EXPECT_EQ(0u, CountAgeingThreads());
    EXPECT_EQ(7, entered.load());  // the thread left its loop without sleeping again
    EXPECT_EQ(asleepAt, VirtualElapsedMs());
    SetSleepHook({});
    RemoveVirtualTime();
}

// Sockets created, used and destroyed from many threads, so that the first create and the last
// destroy race in every order: while a socket lives there is exactly one ageing thread, and after
// the last destroy none, and no thread of the process is left behind.
TEST(PeerRegistry, RacingCreatesAndDestroysKeepExactlyOneAgeingThread) {
    const size_t threadsBefore = CountProcessThreads();
    std::atomic<int> wrong{0};
    std::vector<std::thread> workers;
    for (uint32_t worker = 0; worker < 6; ++worker) {
        workers.emplace_back([&wrong, worker] {
            for (uint32_t cycle = 0; cycle < 150; ++cycle) {
                NetSocket socket;
                const int32_t created = CreateNetSocket(&socket, NET_SOCKET_DATAGRAM);
                wrong.fetch_add(created != 0 || CountAgeingThreads() != 1 || PeerThreadRunning() > 1 ? 1 : 0);
                if ((cycle + worker) % 2 == 0) {
                    OpenNetSocket(&socket, 0, 1);
                    RegisterPeerSocket(&socket);
                    AdmitPeer(&socket, worker);
                    CloseNetSocket(&socket);
                }
                std::this_thread::sleep_for(std::chrono::microseconds((cycle * 37 + worker * 101) % 300));
                DestroyNetSocket(&socket);
            }
        });
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    EXPECT_EQ(0, wrong.load());
    EXPECT_EQ(0u, NetLibraryUsers());
    EXPECT_EQ(0u, CountAgeingThreads());
    EXPECT_EQ(0, PeerThreadRunning());
    EXPECT_EQ(0u, CountPeerSockets());
    EXPECT_EQ(threadsBefore, CountProcessThreads());
}
