// The simulated twin of net_socket_posix.cpp: NetSocket's platform calls on the machine's
// simulated sockets. A datagram socket is bound to a port (0 picks a free ephemeral one at random,
// as an operating system may), receives into a queue of its own, and a readable wait parks the
// fiber until a datagram arrives or the time-out ends. The portable net_socket.cpp is unchanged.
#include <cerrno>
#include <cstring>

#include "net/socket_platform.h"
#include "sim/journal.h"
#include "sim/machine.h"
#include "sim/network.h"
#include "sim/observe.h"

Datagram datagrams[DATAGRAM_POOL];
SimSocket sockets[SOCKET_SLOTS];
int32_t portHeldElsewhere = 0;
int32_t socketWaitsFail = 0;

namespace {
const uint16_t EPHEMERAL_FIRST = 49152;
const uint32_t EPHEMERAL_COUNT = 16384;
const uint32_t NO_DATAGRAM = 0xFFFFFFFFu;

uint32_t freeDatagrams = NO_DATAGRAM;
bool poolMade = false;
uint32_t socketSerial = 0;

SimSocket* SocketOf(uint64_t handle) {
    if (handle < SOCKET_HANDLE_BASE || handle >= SOCKET_HANDLE_BASE + SOCKET_SLOTS) {
        return nullptr;
    }
    SimSocket* socket = &sockets[handle - SOCKET_HANDLE_BASE];
    return socket->open != 0 ? socket : nullptr;
}

bool PortInUse(uint16_t port) {
    for (const SimSocket& socket : sockets) {
        if (socket.open != 0 && socket.bound != 0 && socket.port == port) {
            return true;
        }
    }
    return false;
}

void DropQueue(SimSocket* socket) {
    while (socket->count > 0) {
        FreeDatagram(&datagrams[socket->queue[socket->head]]);
        socket->head = (socket->head + 1) % SOCKET_QUEUE;
        --socket->count;
    }
}

// Takes the oldest queued datagram into the caller's buffer, cut to its capacity as a POSIX
// receive cuts an over-long datagram.
int32_t TakeDatagram(SimSocket* socket, void* buffer, int32_t capacity, NetAddress* from) {
    Datagram* datagram = &datagrams[socket->queue[socket->head]];
    socket->head = (socket->head + 1) % SOCKET_QUEUE;
    --socket->count;
    ObserveDatagramRead(socket, datagram);
    const int32_t length = datagram->length < capacity ? datagram->length : capacity;
    memcpy(buffer, datagram->bytes, static_cast<size_t>(length));
    memset(from, 0, sizeof *from);
    from->family = NET_FAMILY_INET;
    from->port = NetworkPort(datagram->fromPort);
    from->address = datagram->from;
    FreeDatagram(datagram);
    return length;
}
}  // namespace

Datagram* NewDatagram() {
    if (!poolMade) {
        for (uint32_t i = 0; i < DATAGRAM_POOL; ++i) {
            datagrams[i].next = i + 1 < DATAGRAM_POOL ? i + 1 : NO_DATAGRAM;
        }
        freeDatagrams = 0;
        poolMade = true;
    }
    if (freeDatagrams == NO_DATAGRAM) {
        SimFail("the datagram pool is exhausted");
    }
    Datagram* datagram = &datagrams[freeDatagrams];
    freeDatagrams = datagram->next;
    memset(datagram, 0, sizeof *datagram);
    return datagram;
}

void FreeDatagram(Datagram* datagram) {
    datagram->next = freeDatagrams;
    freeDatagrams = DatagramIndex(datagram);
}

uint32_t DatagramIndex(const Datagram* datagram) { return static_cast<uint32_t>(datagram - datagrams); }

void DeliverToMachine(Datagram* datagram) {
    if (datagram->to == HOST_LOOPBACK || datagram->to == HOST_ADDRESS) {
        for (SimSocket& socket : sockets) {
            if (socket.open != 0 && socket.bound != 0 && socket.port == datagram->toPort) {
                if (socket.count == SOCKET_QUEUE) {
                    break;  // a full receive queue drops
                }
                socket.queue[(socket.head + socket.count) % SOCKET_QUEUE] = DatagramIndex(datagram);
                ++socket.count;
                WakeFibersOn(&socket);
                return;
            }
        }
    }
    FreeDatagram(datagram);  // no one listens there: the ICMP error is ignored, as the service asks
}

uint32_t CountOpenSockets() {
    uint32_t count = 0;
    for (const SimSocket& socket : sockets) {
        count += socket.open;
    }
    return count;
}

int32_t StartSocketLibrary() { return 0; }

void StopSocketLibrary() {}

uint64_t OpenPlatformSocket(int32_t* error) {
    for (uint32_t i = 0; i < SOCKET_SLOTS; ++i) {
        SimSocket* socket = &sockets[i];
        if (socket->open == 0) {
            socket->open = 1;
            socket->bound = 0;
            socket->port = 0;
            socket->head = 0;
            socket->count = 0;
            socket->role = simCurrent->role;
            socket->serial = ++socketSerial;
            return SOCKET_HANDLE_BASE + i;
        }
    }
    *error = EMFILE;
    return NET_INVALID_HANDLE;
}

void ClosePlatformSocket(uint64_t handle) {
    SimSocket* socket = SocketOf(handle);
    if (socket == nullptr) {
        return;
    }
    ObserveSocketClose(socket);
    DropQueue(socket);
    socket->open = 0;
    socket->bound = 0;
    WakeFibersOn(socket);  // a wait on a closed socket ends (and then fails)
}

int32_t SetPlatformSocketOption(uint64_t handle, int32_t, int32_t) { return SocketOf(handle) != nullptr ? 0 : -1; }

int32_t BindPlatformSocket(uint64_t handle, const NetAddress* address, int32_t* error) {
    SimSocket* socket = SocketOf(handle);
    if (socket == nullptr) {
        *error = EBADF;
        return -1;
    }
    uint16_t port = HostPort(address->port);
    if (socket->bound != 0) {
        *error = EINVAL;
        ObserveBind(socket, port, 1);
        return -1;
    }
    if (port == 0) {
        do {
            port = static_cast<uint16_t>(EPHEMERAL_FIRST + SimRandomBelow(EPHEMERAL_COUNT));
        } while (PortInUse(port));
    } else if ((port == NTP_PORT && portHeldElsewhere != 0) || PortInUse(port)) {
        // The other program's socket has no SO_REUSEADDR: no one may share its port.
        *error = EADDRINUSE;
        ObserveBind(socket, port, 1);
        return -1;
    }
    socket->bound = 1;
    socket->port = port;
    ObserveBind(socket, port, 0);
    return 0;
}

int32_t ReadPlatformSocketName(uint64_t handle, NetAddress* address) {
    SimSocket* socket = SocketOf(handle);
    if (socket == nullptr || socket->bound == 0) {
        return -1;
    }
    memset(address, 0, sizeof *address);
    address->family = NET_FAMILY_INET;
    address->port = NetworkPort(socket->port);
    return 0;
}

int32_t SendPlatformSocket(uint64_t handle, const void* data, int32_t length, const NetAddress* to, int32_t* error) {
    SimSocket* socket = SocketOf(handle);
    if (socket == nullptr || length < 0) {
        *error = socket == nullptr ? EBADF : EINVAL;
        return -1;
    }
    if (socket->bound == 0) {
        // An unbound datagram socket is bound to an ephemeral port by its first send.
        NetAddress any;
        memset(&any, 0, sizeof any);
        any.family = NET_FAMILY_INET;
        int32_t ignored = 0;
        BindPlatformSocket(handle, &any, &ignored);
    }
    ObserveDatagramSent(socket, to, static_cast<const uint8_t*>(data), length);
    return length;
}

int32_t ReceivePlatformSocket(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from, int32_t* error) {
    SimSocket* socket = SocketOf(handle);
    if (socket == nullptr || capacity < 0) {
        *error = socket == nullptr ? EBADF : EINVAL;
        return -1;
    }
    while (socket->count == 0) {
        WaitFiberOn(socket, WAIT_OTHER);  // a blocking receive waits as long as it takes
        socket = SocketOf(handle);
        if (socket == nullptr) {
            *error = EBADF;
            return -1;
        }
    }
    return TakeDatagram(socket, buffer, capacity, from);
}

int32_t ReceiveQueuedPlatformSocket(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from,
                                    int32_t* error) {
    SimSocket* socket = SocketOf(handle);
    if (socket == nullptr || capacity < 0) {
        *error = socket == nullptr ? EBADF : EINVAL;
        return -1;
    }
    if (socket->count == 0) {
        return NET_NOTHING_QUEUED;
    }
    return TakeDatagram(socket, buffer, capacity, from);
}

int32_t WaitPlatformReadable(uint64_t handle, uint32_t timeoutMs) {
    SimSocket* socket = SocketOf(handle);
    if (socket == nullptr) {
        return -1;
    }
    ObserveWaitStart(socket);
    if (socketWaitsFail != 0) {
        ObserveWaitFailed(socket);
        return -1;
    }
    if (socket->count > 0) {
        return 1;
    }
    WaitFiberOnFor(socket, WaitDuration(timeoutMs));
    socket = SocketOf(handle);
    if (socket == nullptr) {
        return -1;
    }
    if (socket->count == 0) {
        ObserveWaitTimedOut(socket);
        return 0;
    }
    return 1;
}

uint16_t NetworkPort(uint16_t hostPort) { return static_cast<uint16_t>((hostPort >> 8) | (hostPort << 8)); }

uint16_t HostPort(uint16_t networkPort) { return static_cast<uint16_t>((networkPort >> 8) | (networkPort << 8)); }
