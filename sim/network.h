// The simulated network: datagrams in flight (a fixed pool), the machine's sockets as the
// platform file of NetSocket sees them (bound port, receive queue, the fiber waiting on it), and
// the addresses of the world. Addresses are in network order, as everywhere in the service.
#pragma once

#include <cstdint>

#include "sim/scheduler.h"

const uint32_t DATAGRAM_BYTES = 64;   // the longest datagram the world sends
const uint32_t DATAGRAM_POOL = 16384;
const uint32_t SOCKET_SLOTS = 32;
const uint32_t SOCKET_QUEUE = 512;    // datagrams a socket's receive queue holds (1 MiB asked)
const uint64_t SOCKET_HANDLE_BASE = 3;  // handles look like descriptors

// 127.a.b.c in network order.
constexpr uint32_t Loopback(uint32_t b, uint32_t c, uint32_t a = 0) { return 127u | (a << 8) | (b << 16) | (c << 24); }

const uint32_t HOST_LOOPBACK = Loopback(0, 1);   // 127.0.0.1
const uint32_t HOST_ADDRESS = Loopback(0, 10);   // this machine's own address
const uint32_t UPSTREAM_ADDRESS[2] = {Loopback(0, 2), Loopback(0, 3)};
const uint32_t IMPOSTOR_ADDRESS = Loopback(0, 4);  // answers in an upstream's place
const uint32_t CLIENT_COUNT = 250;
inline uint32_t ClientAddress(uint32_t client) { return Loopback(client / 250, 1 + client % 250, 1); }
const uint16_t NTP_PORT = 123;

struct Datagram {
    uint32_t from;
    uint32_t to;
    uint16_t fromPort;
    uint16_t toPort;
    uint16_t length;
    uint8_t duplicate;      // 1 for the network's copy of another datagram
    uint8_t unused;
    uint32_t request;       // the world's number of the request it is, or answers; 0 for none
    uint32_t next;          // free list
    SimTime sentAt;
    SimTime pathDelay;      // how long this datagram travelled
    SimTime requestDelay;   // an answer: how long its request travelled
    uint8_t bytes[DATAGRAM_BYTES];
};

struct SimSocket {
    uint8_t open;
    uint8_t bound;
    uint8_t role;           // the role of the fiber that opened it
    uint16_t port;
    uint32_t queue[SOCKET_QUEUE];
    uint32_t head;
    uint32_t count;
    uint32_t serial;        // which opening of this slot it is
};

extern Datagram datagrams[DATAGRAM_POOL];
extern SimSocket sockets[SOCKET_SLOTS];

// A datagram from the pool, zeroed; fails the run when the pool is empty.
Datagram* NewDatagram();
void FreeDatagram(Datagram* datagram);
uint32_t DatagramIndex(const Datagram* datagram);

// Hands the datagram to the socket bound to its port on this machine: queued, and the fiber
// waiting on that socket woken. Dropped (and freed) when no socket is bound there or its queue
// is full.
void DeliverToMachine(Datagram* datagram);
uint32_t CountOpenSockets();
// Whether the world's other program holds port 123 (a bind of it then fails).
extern int32_t portHeldElsewhere;
// While set, every readable wait fails as a select error does.
extern int32_t socketWaitsFail;
