// The peer registry: admission at the limit, ageing by the sweep, the blocked table, and the
// ageing thread driven in virtual time (held at each sleep until the test lets it through).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <thread>

#include "net/net_socket.h"
#include "net/net_test_seams.h"
#include "net/peer_registry.h"
#include "tests/support/virtual_time.h"

namespace {
const int64_t T = 1767225600;  // 2026-01-01 00:00:00 UTC, where virtual time starts

// A registry-only socket: never created or opened, just a table owner. Addresses are opaque here.
struct TableOwner : NetSocket {
    explicit TableOwner(uint64_t limit) : NetSocket{0, 0, 0, {}, 0, 0, nullptr, limit, nullptr} { RegisterPeerSocket(this); }
    ~TableOwner() { UnregisterPeerSocket(this); }
};

bool WaitUntil(const std::function<bool()>& reached) {
    for (int tick = 0; tick < 10000 && !reached(); ++tick) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return reached();
}
}  // namespace

// The last destroy must not return while the thread is still inside its sleep (held by the hook).
TEST(PeerRegistry, AdmitsUpToTheLimitAgesPeersAndBlockedPairsAndItsThreadSweepsEachSecondUntilJoined) {
    InstallVirtualTime();
    BlockPeer(1, 123);  // at T
    EXPECT_EQ(1, IsPeerBlocked(1, 123));
    EXPECT_EQ(0, IsPeerBlocked(1, 124));
    EXPECT_EQ(0, IsPeerBlocked(2, 123));
    TableOwner server(2);
    EXPECT_EQ(1, AdmitPeerAt(&server, 1, T));
    EXPECT_EQ(1, AdmitPeerAt(&server, 2, T));
    EXPECT_EQ(0, AdmitPeerAt(&server, 3, T));      // full: a new sender is refused
    EXPECT_EQ(1, AdmitPeerAt(&server, 1, T + 4));  // known: admitted and refreshed
    SweepPeerRegistry(T + 5);
    EXPECT_EQ(2u, CountPeers(&server));
    SweepPeerRegistry(T + 6);
    EXPECT_EQ(1u, CountPeers(&server));  // 2 goes at six seconds, the refreshed 1 stays
    EXPECT_EQ(1, AdmitPeerAt(&server, 3, T + 6));  // room again
    SweepPeerRegistry(INT64_MIN);  // a clock gone backwards forgets nothing
    EXPECT_EQ(2u, CountPeers(&server));
    SweepPeerRegistry(T + 30);
    EXPECT_EQ(1, IsPeerBlocked(1, 123));
    SweepPeerRegistry(T + 31);
    EXPECT_EQ(0u, CountBlockedPeers());

    static std::atomic<int> entered{0};  // static: the hook may outlive a failed test
    static std::atomic<int> permits{0};
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
    std::atomic<bool> destroyed{false};
    std::thread destroyer([&] { destroyed = DestroyNetSocket(&library) == 0; });
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_FALSE(destroyed.load()) << "the stop must wait for the thread to end";
    permits.fetch_add(1);
    destroyer.join();
    EXPECT_EQ(0, PeerThreadRunning());
    EXPECT_EQ(0u, CountAgeingThreads());
    EXPECT_EQ(7, entered.load());
    SetSleepHook({});
    RemoveVirtualTime();
}
