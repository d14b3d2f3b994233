// The peer registry behind NetSocket receive: per datagram socket, the remote IPv4 addresses
// heard from in the last few seconds (admission stops at the socket's peer limit), a table of
// blocked (address, local port) pairs, and the ageing thread that forgets peers after 5 s of
// silence and blocked pairs after 30 s. Started by the first NetSocket, stopped by the last.
//
// One registry lock guards every table; it and the tables live as long as the process. The
// ageing thread is joined by the stop, so none outlives the library. Times are seconds since
// 1970 from ReadWallClock.
#pragma once

#include <cstddef>
#include <cstdint>

#include "net/net_socket.h"

const int64_t PEER_KEEP_SECONDS = 5;
const int64_t BLOCKED_KEEP_SECONDS = 30;
const uint32_t PEER_SWEEP_INTERVAL_MS = 1000;

// Starts the ageing thread (NetSocket create, library going up). Start and stop are called one
// at a time, under the socket library's lock.
void StartPeerRegistry();
// Wakes the ageing thread, waits until it has ended (no longer than one sweep), and empties the
// socket and blocked tables. Peer tables of live sockets are left to UnregisterPeerSocket.
void StopPeerRegistry();

// Attaches an empty peer table and enters the socket into the socket table.
void RegisterPeerSocket(NetSocket* socket);
// Frees the socket's peer table and takes it out of the socket table; nothing when it has none.
void UnregisterPeerSocket(NetSocket* socket);

// 1 when (address, localPort) is blocked, else 0.
int32_t IsPeerBlocked(uint32_t address, uint16_t localPort);

// 1 when a datagram from address may be delivered to the socket, 0 when it must be dropped.
// A known sender is refreshed and always admitted; a new one only below the peer limit.
int32_t AdmitPeer(NetSocket* socket, uint32_t address);
int32_t AdmitPeerAt(NetSocket* socket, uint32_t address, int64_t now);

// One pass of the ageing thread at time now.
void SweepPeerRegistry(int64_t now);
