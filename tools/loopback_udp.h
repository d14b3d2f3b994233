// A bare UDP endpoint of the rig tools (the load generator, the ceiling loop) and of the tests'
// peers, on 127.0.0.0/8: bound to one loopback address and port
// (unlike NetSocket, which always binds every interface), so that fake servers and the load
// generator can stand beside the product on port 123 without owning the whole port.
#pragma once

#include <cstdint>

struct LoopbackUdp {
    uint64_t handle;  // the platform socket, or ~0 when closed
};

// Binds to address (dotted text, 127.x.y.z only) and port (0: any). Shared, it sets SO_REUSEADDR
// so that a server of the product on the wildcard address may share the port; not shared, it
// holds the port against any later bind that overlaps it. 0, or the platform error.
int32_t OpenLoopbackUdp(LoopbackUdp* endpoint, const char* address, uint16_t port, bool shared = true);
void CloseLoopbackUdp(LoopbackUdp* endpoint);
// Bytes sent, or -1. address in network order, port in host order.
int32_t SendLoopbackUdp(LoopbackUdp* endpoint, const void* data, int32_t length, uint32_t address, uint16_t port);
// Waits up to timeoutMs for one datagram: its full length (which may exceed capacity; only
// capacity bytes are stored), 0 when none came, -1 on error. Sender when given.
int32_t ReceiveLoopbackUdp(LoopbackUdp* endpoint, void* buffer, int32_t capacity, uint32_t timeoutMs,
                           uint32_t* senderAddress, uint16_t* senderPort);
// The next datagram already queued, without waiting: its length (at most capacity), 0 when none
// is queued, -1 on error. On Windows the endpoint is left non-blocking from then on.
int32_t ReceiveQueuedLoopbackUdp(LoopbackUdp* endpoint, void* buffer, int32_t capacity, uint32_t* senderAddress,
                                 uint16_t* senderPort);
// Asks for a receive queue of bytes (the platform may cap it): 0, or -1.
int32_t SetLoopbackUdpReceiveBuffer(LoopbackUdp* endpoint, int32_t bytes);
// The port the endpoint is bound to (host order), 0 when unknown.
uint16_t LoopbackUdpPort(const LoopbackUdp* endpoint);
// Dotted text to network order; 0 when it is not a 127.x.y.z address.
uint32_t LoopbackAddress(const char* text);
