// NetSocket: the state machine of the socket wrapper and the library start-up count. Portable;
// every platform call goes through socket_platform.h.
#include "net/net_socket.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "net/ipv4.h"
#include "net/peer_registry.h"
#include "net/net_test_seams.h"
#include "net/socket_platform.h"
#include "runtime/runtime.h"

namespace {
// Live NetSocket objects. Create and destroy must pair: an unpaired destroy wraps the count
// below zero, after which the library is never shut down. Changed only under LibraryLock, so
// the library's start and stop, and the ageing thread's with them, never overlap; atomic so that
// readers on other threads (the IPv4 routines) see a whole value.
std::atomic<uint32_t> libraryUsers{0};

// Lives as long as the process: any thread may create or destroy the first or last socket.
Lock* LibraryLock() {
    static PermanentLock lock;
    return lock.Get();
}

const uint32_t NET_SOCKET_DATAGRAM_ALT = 3;  // the other datagram type; this system uses 2
const size_t DROPPED_PREFIX_BYTES = 8;       // zeroed in the buffer of a dropped datagram
const uint64_t HANDLE_LOW_MASK = 0xFFFFFFFFULL;

bool IsDatagram(const NetSocket* socket) {
    return socket->type == NET_SOCKET_DATAGRAM || socket->type == NET_SOCKET_DATAGRAM_ALT;
}

NetAddress MakeAddress(uint16_t hostPort, uint32_t address) {
    NetAddress result;
    memset(&result, 0, sizeof(result));
    result.family = NET_FAMILY_INET;
    result.port = NetworkPort(hostPort);
    result.address = address;
    return result;
}
}  // namespace

const SocketPlatform systemSocketPlatform = {
    StartSocketLibrary,        StopSocketLibrary,          OpenPlatformSocket,     ClosePlatformSocket,
    SetPlatformSocketOption,   BindPlatformSocket,         ReadPlatformSocketName, SendPlatformSocket,
    ReceivePlatformSocket,     ReceiveQueuedPlatformSocket, WaitPlatformReadable,
};

namespace {
std::atomic<const SocketPlatform*> activeSockets{&systemSocketPlatform};

const SocketPlatform& Sockets() { return *activeSockets.load(std::memory_order_acquire); }
}  // namespace

const SocketPlatform* InstallSocketPlatform(const SocketPlatform* platform) {
    return activeSockets.exchange(platform != nullptr ? platform : &systemSocketPlatform, std::memory_order_acq_rel);
}

uint32_t NetLibraryUsers() { return libraryUsers.load(); }

int32_t CreateNetSocket(NetSocket* socket, uint32_t type) {
    if (socket == nullptr) {
        return 1;
    }
    {
        LockHold hold(LibraryLock());
        if (libraryUsers.load() == 0) {
            if (Sockets().startLibrary() != 0) {
                return 1;
            }
            StartPeerRegistry();
        }
        libraryUsers.fetch_add(1);
    }
    socket->handle = NET_INVALID_HANDLE;
    socket->type = type;
    socket->state = NET_STATE_CLOSED;
    memset(&socket->address, 0, sizeof(socket->address));
    socket->localPort = 0;
    socket->localAddress = 0;
    socket->attachment = nullptr;
    socket->peerLimit = 0;
    socket->peers = nullptr;
    return 0;
}

int32_t OpenNetSocket(NetSocket* socket, uint16_t localPort, uint64_t peerLimit) {
    if (socket == nullptr) {
        return 1;
    }
    // Unconditionally, even with no handle: the platform refuses that quietly.
    Sockets().close(socket->handle);
    socket->handle = NET_INVALID_HANDLE;
    socket->peerLimit = peerLimit;
    if (!IsDatagram(socket)) {
        // This system speaks only datagrams: there is no stream layer to listen for.
        socket->state = NET_STATE_FAILED;
        return NET_ERROR_TYPE_NOT_SUPPORTED;
    }
    int32_t error = 0;
    socket->handle = Sockets().open(&error);
    // With no error code to report the calls below go on and fail (or not) on their own.
    if (socket->handle == NET_INVALID_HANDLE) {
        socket->state = NET_STATE_FAILED;
        if (error != 0) {
            return error;
        }
    }
    Sockets().setOption(socket->handle, SOCKET_OPTION_REUSE_ADDRESS, 1);  // best effort
    socket->address = MakeAddress(localPort, 0);
    error = 0;
    if (Sockets().bind(socket->handle, &socket->address, &error) != 0) {
        socket->state = NET_STATE_FAILED;
        if (error != 0) {
            return error;
        }
    } else {
        socket->state = NET_STATE_BOUND;
    }
    Sockets().readName(socket->handle, &socket->address);  // on failure the bind address stays
    socket->localPort = HostPort(socket->address.port);
    GetLocalAddress(&socket->localAddress);  // informational; a failure leaves the old value
    return 0;
}

int32_t SendNetSocket(NetSocket* socket, const void* data, int32_t length, const uint32_t* address, uint16_t port,
                      uint64_t peerLimit) {
    if (socket == nullptr || data == nullptr || address == nullptr || !IsDatagram(socket)) {
        return -1;
    }
    if (socket->state == NET_STATE_CLOSED) {
        OpenNetSocket(socket, 0, peerLimit);  // a failure shows in sendto below
    }
    uint32_t destination = 0;
    memcpy(&destination, address, sizeof(destination));
    socket->address = MakeAddress(port, destination);
    int32_t error = 0;
    const int32_t sent = Sockets().send(socket->handle, data, length, &socket->address, &error);
    if (sent == -1) {
        socket->state = NET_STATE_FAILED;
    }
    return sent;
}

namespace {
int32_t ReceiveAdmitted(NetSocket* socket, void* buffer, int32_t capacity, uint32_t* senderAddress,
                        uint16_t* senderPort, uint64_t peerLimit, bool queued) {
    if (socket == nullptr || buffer == nullptr || senderAddress == nullptr || senderPort == nullptr) {
        return -1;
    }
    if (!IsDatagram(socket) || socket->attachment != nullptr) {
        return -1;
    }
    int32_t error = 0;
    if (socket->state == NET_STATE_CLOSED) {
        // A broadcast-capable socket is made first, and open closes it at once and makes its
        // own: the option never survives, and the socket reopened here is exactly one that
        // open made. Left so because nothing is gained by removing it: nothing in this system
        // sends broadcasts, and no path of this service gets here (the client and the server
        // open before they receive), so the extra socket is never paid for.
        socket->handle = Sockets().open(&error);
        Sockets().setOption(socket->handle, SOCKET_OPTION_BROADCAST, 1);
        if (OpenNetSocket(socket, socket->localPort, peerLimit) != 0) {
            return -1;
        }
    }
    NetAddress sender;
    memset(&sender, 0, sizeof(sender));
    const int32_t received = queued ? Sockets().receiveQueued(socket->handle, buffer, capacity, &sender, &error)
                                    : Sockets().receive(socket->handle, buffer, capacity, &sender, &error);
    if (received == NET_NOTHING_QUEUED) {
        return NET_NOTHING_QUEUED;
    }
    if (received == -1) {
        socket->state = NET_STATE_FAILED;
        return -1;
    }
    if (socket->peers == nullptr) {
        RegisterPeerSocket(socket);
    }
    if (IsPeerBlocked(sender.address, socket->localPort) != 0 || AdmitPeer(socket, sender.address) == 0) {
        // Callers read the zeroed start as "nothing usable arrived". Never past the buffer's end.
        const size_t room = capacity > 0 ? static_cast<size_t>(capacity) : 0;
        memset(buffer, 0, room < DROPPED_PREFIX_BYTES ? room : DROPPED_PREFIX_BYTES);
        return 0;
    }
    *senderAddress = sender.address;
    *senderPort = HostPort(sender.port);
    return received;
}
}  // namespace

int32_t ReceiveNetSocket(NetSocket* socket, void* buffer, int32_t capacity, uint32_t* senderAddress,
                         uint16_t* senderPort, uint64_t peerLimit) {
    return ReceiveAdmitted(socket, buffer, capacity, senderAddress, senderPort, peerLimit, false);
}

int32_t ReceiveQueuedNetSocket(NetSocket* socket, void* buffer, int32_t capacity, uint32_t* senderAddress,
                               uint16_t* senderPort, uint64_t peerLimit) {
    return ReceiveAdmitted(socket, buffer, capacity, senderAddress, senderPort, peerLimit, true);
}

int32_t CloseNetSocket(NetSocket* socket) {
    if (socket == nullptr) {
        return 1;
    }
    UnregisterPeerSocket(socket);
    Sockets().close(socket->handle);
    socket->handle = NET_INVALID_HANDLE;
    socket->state = NET_STATE_CLOSED;
    memset(&socket->address, 0, sizeof(socket->address));
    socket->localPort = 0;
    socket->localAddress = 0;
    return 0;
}

int32_t DestroyNetSocket(NetSocket* socket) {
    if (socket == nullptr) {
        return 1;
    }
    // Always, whatever the handle: a socket heard from and then reopened without success has no
    // handle but is still in the registry, whose ageing sweep would go on reading it after the
    // caller's storage is gone.
    UnregisterPeerSocket(socket);
    if ((socket->handle & HANDLE_LOW_MASK) != HANDLE_LOW_MASK) {
        Sockets().close(socket->handle);
        socket->handle = NET_INVALID_HANDLE;
    }
    free(socket->attachment);
    socket->attachment = nullptr;
    LockHold hold(LibraryLock());
    if (libraryUsers.fetch_sub(1) == 1) {
        StopPeerRegistry();
        Sockets().stopLibrary();
    }
    return 0;
}

int32_t SetNetSocketReceiveBuffer(NetSocket* socket, int32_t bytes) {
    if (socket == nullptr) {
        return -1;
    }
    return Sockets().setOption(socket->handle, SOCKET_OPTION_RECEIVE_BUFFER, bytes);
}

int32_t WaitNetSocketReadable(NetSocket* socket, uint32_t timeoutMs) {
    if (socket == nullptr) {
        return -1;
    }
    return Sockets().waitReadable(socket->handle, timeoutMs);
}
