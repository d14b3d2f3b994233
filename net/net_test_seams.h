// The network layer's test seam: what only tests (and diagnostics) call. The IPv4 routines' table
// of platform calls can be replaced one call at a time; the peer registry can be watched and its
// blocked table filled, which nothing in the service does.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "net/ipv4_platform.h"
#include "net/net_socket.h"
#include "net/socket_platform.h"

// Installs a table for the whole process; null restores the system table. Returns the previous.
const Ipv4Platform* InstallIpv4Platform(const Ipv4Platform* platform);

// Forgets the address the adapter search last found, as at process start.
void ForgetAdapterCache();

// Blocks (address, localPort) from now on; the sweep forgets it after BLOCKED_KEEP_SECONDS.
void BlockPeer(uint32_t address, uint16_t localPort);

size_t CountPeers(const NetSocket* socket);
size_t CountPeerSockets();
size_t CountBlockedPeers();
// Ageing threads inside their loop: 1 while the library runs (once the thread got going).
int32_t PeerThreadRunning();
// Ageing threads started and not yet joined: 1 while the library runs, 0 after its stop.
uint32_t CountAgeingThreads();

// Installs a table of socket calls for the whole process (a test replaces one call, e.g. a wait
// that fails as select does, which no loopback socket can be made to do); null restores
// systemSocketPlatform. Returns the previous one.
const SocketPlatform* InstallSocketPlatform(const SocketPlatform* platform);
