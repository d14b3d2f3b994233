// The peer registry: the socket table, the blocked table, each datagram socket's peer table,
// the two registry locks and the ageing thread. Portable; time comes from ReadWallClock and
// the thread sleeps through SleepFor, so tests drive it in virtual time.
#include "net/peer_registry.h"

#include "net/net_test_seams.h"

#include <array>
#include <atomic>
#include <cstring>
#include <map>
#include <new>
#include <set>

#include "runtime/runtime.h"

namespace {
// Keys are compared byte by byte as unsigned bytes: the address in network order, and for the
// blocked table the local port after it in the host's own byte order.
typedef std::array<uint8_t, 4> PeerKey;
typedef std::array<uint8_t, 6> BlockedKey;
}  // namespace

struct PeerTable {
    std::map<PeerKey, int64_t> lastHeard;  // seconds since 1970 of the last admitted datagram
};

namespace {
// The ageing thread and the wakeup that ends it. Written only by StartPeerRegistry and
// StopPeerRegistry, which the socket library calls one at a time under its own lock.
ThreadHandle ageingThread = nullptr;
Wakeup* ageingStop = nullptr;
std::atomic<uint32_t> threadInLoop{0};
std::atomic<uint32_t> ageingThreads{0};

// The registry lock lives as long as the process: made on first use and never deleted, so no
// thread can ever meet it freed, whatever the order of library starts and stops.
Lock* RegistryLock() {
    static PermanentLock lock;
    return lock.Get();
}

// The tables live as long as the process too; never destroyed, so that nothing still sweeping
// at exit meets destroyed containers.
std::set<uintptr_t>& SocketTable() {
    static std::set<uintptr_t>* table = new std::set<uintptr_t>;
    return *table;
}

std::map<BlockedKey, int64_t>& BlockedTable() {
    static std::map<BlockedKey, int64_t>* table = new std::map<BlockedKey, int64_t>;
    return *table;
}

class RegistryHold : public LockHold {
public:
    RegistryHold() : LockHold(RegistryLock()) {}
};

PeerKey MakePeerKey(uint32_t address) {
    PeerKey key;
    memcpy(key.data(), &address, sizeof(address));
    return key;
}

BlockedKey MakeBlockedKey(uint32_t address, uint16_t localPort) {
    BlockedKey key;
    memcpy(key.data(), &address, sizeof(address));
    memcpy(key.data() + sizeof(address), &localPort, sizeof(localPort));
    return key;
}

// now - keep > since, without overflowing on absurd times.
bool OlderThan(int64_t now, int64_t since, int64_t keep) {
    return now > since && static_cast<uint64_t>(now) - static_cast<uint64_t>(since) > static_cast<uint64_t>(keep);
}

// Sweeps once a second until its wakeup is signalled. The wakeup ends the sleep at once, so the
// last NetSocket's destroy (which joins this thread) costs no second of waiting: a client that
// destroys its socket between the arrival of an answer and the setting of the clock must not
// set the clock late.
uint32_t RunAgeingThread(uint64_t argument) {
    Wakeup* stop = reinterpret_cast<Wakeup*>(static_cast<uintptr_t>(argument));
    threadInLoop.fetch_add(1);
    do {
        SweepPeerRegistry(ReadWallClock(nullptr));
    } while (SleepUnlessWoken(stop, PEER_SWEEP_INTERVAL_MS) == 0);
    threadInLoop.fetch_sub(1);
    return 0;
}
}  // namespace

void StartPeerRegistry() {
    RegistryLock();  // made here at the latest, before any thread can race to make it
    ageingStop = CreateWakeup();
    if (ageingStop == nullptr) {
        return;  // without a way to stop it no thread is started: admission works, peers never age
    }
    // A thread that cannot be created is ignored: admission still works, peers just never age.
    if (StartJoinableThread(RunAgeingThread, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(ageingStop)),
                            &ageingThread) == 0) {
        DestroyWakeup(ageingStop);
        ageingStop = nullptr;
        return;
    }
    ageingThreads.fetch_add(1);
}

void StopPeerRegistry() {
    // The thread is joined, not just told: when this returns it has left its loop for good.
    SignalWakeup(ageingStop);
    if (ageingThread != nullptr) {
        JoinThread(ageingThread);
        ageingThread = nullptr;
        ageingThreads.fetch_sub(1);
    }
    DestroyWakeup(ageingStop);
    ageingStop = nullptr;
    RegistryHold hold;
    SocketTable().clear();
    BlockedTable().clear();
}

void RegisterPeerSocket(NetSocket* socket) {
    if (socket == nullptr) {
        return;
    }
    RegistryHold hold;
    if (socket->peers == nullptr) {
        socket->peers = new (std::nothrow) PeerTable;
    }
    if (socket->peers == nullptr) {
        return;  // admission then refuses every sender of this socket
    }
    try {
        SocketTable().insert(reinterpret_cast<uintptr_t>(socket));
    } catch (...) {
        // Out of memory: the socket's peers are then never aged, only refreshed.
    }
}

void UnregisterPeerSocket(NetSocket* socket) {
    if (socket == nullptr) {
        return;
    }
    RegistryHold hold;
    if (socket->peers == nullptr) {
        return;
    }
    delete socket->peers;
    socket->peers = nullptr;
    SocketTable().erase(reinterpret_cast<uintptr_t>(socket));
}

int32_t IsPeerBlocked(uint32_t address, uint16_t localPort) {
    RegistryHold hold;
    const std::map<BlockedKey, int64_t>& blocked = BlockedTable();
    return blocked.find(MakeBlockedKey(address, localPort)) != blocked.end() ? 1 : 0;
}

void BlockPeer(uint32_t address, uint16_t localPort) {
    const int64_t now = ReadWallClock(nullptr);
    RegistryHold hold;
    try {
        BlockedTable()[MakeBlockedKey(address, localPort)] = now;
    } catch (...) {
        // Out of memory: the pair simply stays unblocked.
    }
}

int32_t AdmitPeer(NetSocket* socket, uint32_t address) {
    return AdmitPeerAt(socket, address, ReadWallClock(nullptr));
}

int32_t AdmitPeerAt(NetSocket* socket, uint32_t address, int64_t now) {
    if (socket == nullptr) {
        return 0;
    }
    RegistryHold hold;
    if (socket->peers == nullptr) {
        return 0;
    }
    std::map<PeerKey, int64_t>& lastHeard = socket->peers->lastHeard;
    const PeerKey key = MakePeerKey(address);
    const auto known = lastHeard.find(key);
    if (known != lastHeard.end()) {
        known->second = now;  // a known sender is admitted even when the table is full
        return 1;
    }
    if (lastHeard.size() >= socket->peerLimit) {
        return 0;
    }
    try {
        lastHeard.emplace(key, now);
    } catch (...) {
        return 0;  // a sender that cannot be remembered is not admitted
    }
    return 1;
}

void SweepPeerRegistry(int64_t now) {
    RegistryHold hold;
    for (const uintptr_t identity : SocketTable()) {
        const NetSocket* socket = reinterpret_cast<const NetSocket*>(identity);
        if (socket->peers == nullptr) {
            continue;
        }
        std::map<PeerKey, int64_t>& lastHeard = socket->peers->lastHeard;
        for (auto entry = lastHeard.begin(); entry != lastHeard.end();) {
            entry = OlderThan(now, entry->second, PEER_KEEP_SECONDS) ? lastHeard.erase(entry) : std::next(entry);
        }
    }
    std::map<BlockedKey, int64_t>& blocked = BlockedTable();
    for (auto entry = blocked.begin(); entry != blocked.end();) {
        entry = OlderThan(now, entry->second, BLOCKED_KEEP_SECONDS) ? blocked.erase(entry) : std::next(entry);
    }
}

size_t CountPeers(const NetSocket* socket) {
    if (socket == nullptr) {
        return 0;
    }
    RegistryHold hold;
    return socket->peers == nullptr ? 0 : socket->peers->lastHeard.size();
}

size_t CountPeerSockets() {
    RegistryHold hold;
    return SocketTable().size();
}

size_t CountBlockedPeers() {
    RegistryHold hold;
    return BlockedTable().size();
}

int32_t PeerThreadRunning() { return static_cast<int32_t>(threadInLoop.load()); }

uint32_t CountAgeingThreads() { return ageingThreads.load(); }
