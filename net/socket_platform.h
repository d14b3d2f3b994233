// The operating-system edge of NetSocket: Windows Sockets in net_socket_win32.cpp, BSD sockets
// in net_socket_posix.cpp. Each call captures the platform's error code right after the call
// that failed. Handles are the platform socket widened to 64 bits; NET_INVALID_HANDLE for none.
#pragma once

#include <cstdint>

#include "net/net_socket.h"

const uint16_t NET_FAMILY_INET = 2;  // AF_INET on every platform we build for

const int32_t SOCKET_OPTION_REUSE_ADDRESS = 1;
const int32_t SOCKET_OPTION_BROADCAST = 2;
const int32_t SOCKET_OPTION_RECEIVE_BUFFER = 3;  // bytes

// WSAStartup version 2.0: 0 on success. Elsewhere there is nothing to start.
int32_t StartSocketLibrary();
void StopSocketLibrary();

// A datagram IPv4 socket, or NET_INVALID_HANDLE and *error.
uint64_t OpenPlatformSocket(int32_t* error);
// closesocket; an invalid handle is passed on and its failure ignored.
void ClosePlatformSocket(uint64_t handle);
// setsockopt at socket level with a 32-bit value: 0 on success.
int32_t SetPlatformSocketOption(uint64_t handle, int32_t option, int32_t value);
// 0 on success, else -1 and *error.
int32_t BindPlatformSocket(uint64_t handle, const NetAddress* address, int32_t* error);
// getsockname: 0 and the bound address, else -1 with *address untouched.
int32_t ReadPlatformSocketName(uint64_t handle, NetAddress* address);
// Bytes sent or received, else -1 and *error.
int32_t SendPlatformSocket(uint64_t handle, const void* data, int32_t length, const NetAddress* to, int32_t* error);
int32_t ReceivePlatformSocket(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from, int32_t* error);
// The same without waiting: NET_NOTHING_QUEUED when no datagram is queued. On Windows the socket
// is left non-blocking (a blocking receive on it afterwards fails at once when nothing is queued).
int32_t ReceiveQueuedPlatformSocket(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from,
                                    int32_t* error);
// 1 readable, 0 time-out, -1 error (including an invalid handle).
int32_t WaitPlatformReadable(uint64_t handle, uint32_t timeoutMs);

// The calls above as one table. NetSocket reaches the platform only through the table installed
// (systemSocketPlatform, unless a test replaces a call: net_test_seams.h).
struct SocketPlatform {
    int32_t (*startLibrary)();
    void (*stopLibrary)();
    uint64_t (*open)(int32_t* error);
    void (*close)(uint64_t handle);
    int32_t (*setOption)(uint64_t handle, int32_t option, int32_t value);
    int32_t (*bind)(uint64_t handle, const NetAddress* address, int32_t* error);
    int32_t (*readName)(uint64_t handle, NetAddress* address);
    int32_t (*send)(uint64_t handle, const void* data, int32_t length, const NetAddress* to, int32_t* error);
    int32_t (*receive)(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from, int32_t* error);
    int32_t (*receiveQueued)(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from, int32_t* error);
    int32_t (*waitReadable)(uint64_t handle, uint32_t timeoutMs);
};

extern const SocketPlatform systemSocketPlatform;

// Ports and addresses cross the wire big-endian; these swap on little-endian hosts only.
uint16_t NetworkPort(uint16_t hostPort);
uint16_t HostPort(uint16_t networkPort);
