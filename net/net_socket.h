// NetSocket: the IPv4 socket object of the support library. Datagram sockets are opened on a
// local port with a peer limit (the most distinct remote addresses admitted at one time), send
// and receive reopen a closed socket themselves, and the first NetSocket created starts the
// socket library and the peer registry's ageing thread; the last one destroyed stops them.
#pragma once

#include <cstdint>

const uint32_t NET_SOCKET_DATAGRAM = 2;
const uint64_t NET_INVALID_HANDLE = ~0ULL;

const uint32_t NET_STATE_FAILED = 0;
const uint32_t NET_STATE_CLOSED = 1;
const uint32_t NET_STATE_BOUND = 3;

// A queued receive's answer when no datagram is waiting; the socket stays as it was.
const int32_t NET_NOTHING_QUEUED = -2;

// Open's answer for a type that is not a datagram type (WSAESOCKTNOSUPPORT).
const int32_t NET_ERROR_TYPE_NOT_SUPPORTED = 10044;

// The layout of sockaddr_in: port and address in network byte order.
struct NetAddress {
    uint16_t family;
    uint16_t port;
    uint32_t address;
    uint8_t zero[8];
};

struct PeerTable;

struct NetSocket {
    uint64_t handle;        // the platform socket; NET_INVALID_HANDLE when none
    uint32_t type;          // 2 or 3 datagram; nothing else opens
    uint32_t state;         // NET_STATE_*
    NetAddress address;     // bind address during open; destination of the last send
    uint16_t localPort;     // host order, read back after binding
    uint32_t localAddress;  // this host's address, taken at open
    void* attachment;       // a layer above the socket (none in this system); receive refuses it
    uint64_t peerLimit;
    PeerTable* peers;       // datagram sockets: owned by the registry, made by the first receive
};

int32_t CreateNetSocket(NetSocket* socket, uint32_t type);
// 0, or the platform's error code of the failing call; 1 for a null object.
int32_t OpenNetSocket(NetSocket* socket, uint16_t localPort, uint64_t peerLimit);
// Bytes sent, or -1.
int32_t SendNetSocket(NetSocket* socket, const void* data, int32_t length, const uint32_t* address, uint16_t port,
                      uint64_t peerLimit);
// Bytes received; 0 when the registry dropped the datagram (the first 8 buffer bytes are then
// zero); -1 on refusal or failure. Blocks until a datagram arrives.
int32_t ReceiveNetSocket(NetSocket* socket, void* buffer, int32_t capacity, uint32_t* senderAddress,
                         uint16_t* senderPort, uint64_t peerLimit);
// ReceiveNetSocket without the wait, for draining what is already queued: the same admission of
// every datagram and the same results, or NET_NOTHING_QUEUED when the queue is empty. A socket
// read this way is not to be read blocking afterwards (see socket_platform.h).
int32_t ReceiveQueuedNetSocket(NetSocket* socket, void* buffer, int32_t capacity, uint32_t* senderAddress,
                               uint16_t* senderPort, uint64_t peerLimit);
int32_t CloseNetSocket(NetSocket* socket);
int32_t DestroyNetSocket(NetSocket* socket);

// Owns a created NetSocket: closes and destroys it when it goes out of scope, so that no early
// return leaves a socket or a library reference behind. Discard does it earlier, once.
class NetSocketHold {
public:
    explicit NetSocketHold(NetSocket* socket) : socket_(socket) {}
    ~NetSocketHold() { Discard(); }
    NetSocketHold(const NetSocketHold&) = delete;
    NetSocketHold& operator=(const NetSocketHold&) = delete;
    void Discard() {
        if (socket_ != nullptr) {
            CloseNetSocket(socket_);
            DestroyNetSocket(socket_);
            socket_ = nullptr;
        }
    }

private:
    NetSocket* socket_;
};

// Asks for a receive queue of the given size in bytes, which the platform may cap: 0 or -1.
int32_t SetNetSocketReceiveBuffer(NetSocket* socket, int32_t bytes);

// select(1024, readable = {socket}) with the given time-out: 1 readable, 0 time-out, -1 error.
int32_t WaitNetSocketReadable(NetSocket* socket, uint32_t timeoutMs);

// Live NetSocket objects: the library start-up reference count.
uint32_t NetLibraryUsers();
