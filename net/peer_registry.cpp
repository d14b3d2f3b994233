// The peer registry: the socket table, the blocked table, each datagram socket's peer table,
// the two registry locks and the ageing thread. Portable; time comes from ReadWallClock and
// the thread sleeps through SleepFor, so tests drive it in virtual time.
#include "net/peer_registry.h"

#include <array>
#include <atomic>
#include <cstring>
#include <map>
#include <mutex>
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
std::atomic<uint32_t> running{0};
std::atomic<uint32_t> threadInLoop{0};
// Either lock may be absent when it could not be allocated; the runtime's lock calls then do
// nothing, as they do for any null lock.
std::atomic<Lock*> threadLock{nullptr};
std::atomic<Lock*> registryLock{nullptr};

// A thread created by one start can run late, after that library's shutdown and even after the
// next start. The generation tells it whether it still belongs to the running library; the
// guard makes its check and its entry into the thread lock one step as seen by shutdown.
std::mutex lifecycleGuard;
uint64_t generation = 0;

// The tables live as long as the process; never destroyed, so that a thread still sweeping at
// exit does not meet destroyed containers.
std::set<uintptr_t>& SocketTable() {
    static std::set<uintptr_t>* table = new std::set<uintptr_t>;
    return *table;
}

std::map<BlockedKey, int64_t>& BlockedTable() {
    static std::map<BlockedKey, int64_t>* table = new std::map<BlockedKey, int64_t>;
    return *table;
}

class RegistryHold {
public:
    RegistryHold() : lock_(registryLock.load()) { EnterLock(lock_); }
    ~RegistryHold() { LeaveLock(lock_); }
    RegistryHold(const RegistryHold&) = delete;
    RegistryHold& operator=(const RegistryHold&) = delete;

private:
    Lock* lock_;
};

Lock* NewLock() {
    Lock* lock = new (std::nothrow) Lock;
    if (lock != nullptr) {
        InitLock(lock);
    }
    return lock;
}

void FreeLock(Lock* lock) {
    if (lock != nullptr) {
        DeleteLock(lock);
        delete lock;
    }
}

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

uint32_t RunAgeingThread(uint64_t myGeneration) {
    if (running.load() == 0) {
        return 0;
    }
    Lock* held = nullptr;
    {
        std::lock_guard<std::mutex> guard(lifecycleGuard);
        if (running.load() == 0 || myGeneration != generation) {
            return 0;
        }
        held = threadLock.load();
        if (held == nullptr) {
            return 0;  // without its lock nothing could wait for this thread to stop
        }
        EnterLock(held);
    }
    threadInLoop.store(1);
    do {
        SweepPeerRegistry(ReadWallClock(nullptr));
        SleepFor(PEER_SWEEP_INTERVAL_MS);
    } while (running.load() == 1);
    threadInLoop.store(0);
    LeaveLock(held);
    return 0;
}
}  // namespace

void StartPeerRegistry() {
    Lock* newThreadLock = NewLock();
    Lock* newRegistryLock = NewLock();
    uint64_t myGeneration = 0;
    {
        std::lock_guard<std::mutex> guard(lifecycleGuard);
        threadLock.store(newThreadLock);
        registryLock.store(newRegistryLock);
        running.store(1);
        myGeneration = ++generation;
    }
    // A thread that cannot be created is ignored: admission still works, peers just never age.
    StartThread(RunAgeingThread, myGeneration);
}

void StopPeerRegistry() {
    {
        std::lock_guard<std::mutex> guard(lifecycleGuard);
        running.store(0);
    }
    // The thread holds this lock from before its first sweep until after its last sleep.
    Lock* waitOn = threadLock.load();
    EnterLock(waitOn);
    LeaveLock(waitOn);
    {
        RegistryHold hold;
        SocketTable().clear();
        BlockedTable().clear();
    }
    Lock* oldThreadLock = nullptr;
    Lock* oldRegistryLock = nullptr;
    {
        std::lock_guard<std::mutex> guard(lifecycleGuard);
        oldThreadLock = threadLock.exchange(nullptr);
        oldRegistryLock = registryLock.exchange(nullptr);
    }
    FreeLock(oldThreadLock);
    FreeLock(oldRegistryLock);
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
