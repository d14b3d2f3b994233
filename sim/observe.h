// What the simulated twins of the platform files tell the world and the oracle: every place where
// the service's code meets its machine. The twins decide nothing themselves beyond what the
// operating system would; the world answers the network and the name service, the oracle
// checks what the service did.
#pragma once

#include <cstdint>

#include "net/net_socket.h"
#include "sim/network.h"
#include "sim/scheduler.h"

// Threads (runtime twin). While threadStartsFail is set the machine refuses to start a time
// thread (the only threads whose failed start the service reports).
extern int32_t threadStartsFail;
void ObserveThreadStart(SimFiber* fiber);
void ObserveThreadStartFailed(uint8_t role);
// The fiber that holds a simulated lock (the object of a WAIT_LOCK wait), or null.
SimFiber* SimLockOwner(const void* lock);
void ObserveThreadEnd(SimFiber* fiber);
// A sleep of the calling fiber is about to begin.
void ObserveSleep(uint32_t milliseconds);
void ObservePriority(int32_t priority);
// The service hands the operating system a new time (before the platform's whole-ms cut).
void ObserveClockWrite(int64_t fileTime);

// Sockets (NetSocket's platform twin).
void ObserveSocketClose(SimSocket* socket);
void ObserveBind(SimSocket* socket, uint16_t port, int32_t failed);
// A datagram leaves the machine: the world carries it.
void ObserveDatagramSent(SimSocket* socket, const NetAddress* to, const uint8_t* data, int32_t length);
// The service read this datagram from the socket (before the peer admission).
void ObserveDatagramRead(SimSocket* socket, const Datagram* datagram);
// A readable wait begins; it ended with nothing to read; it failed (as a select error does).
void ObserveWaitStart(SimSocket* socket);
void ObserveWaitTimedOut(SimSocket* socket);
void ObserveWaitFailed(SimSocket* socket);

// The name service (the machine's IPv4 table): 0 and the address, RESOLVE_TRY_AGAIN, or another
// failure.
int32_t WorldLookupHost(const char* name, uint32_t* address);
// Installs the machine's IPv4 table (sim/ipv4_sim.cpp).
void InstallMachineIpv4();

// The workstation mailslot (report twin): one written report.
void ObserveReport(const uint8_t* report, uint32_t size);
