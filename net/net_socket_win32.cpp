// Windows Sockets edge of NetSocket: WSAStartup 2.0 for the library, SOCKET handles as they
// are, WSAGetLastError captured right after the call that failed.
#include <winsock2.h>
#include <mswsock.h>
#include <ws2tcpip.h>

#include <cstring>

#include "net/socket_platform.h"
#include "runtime/runtime.h"

namespace {
static_assert(sizeof(NetAddress) == sizeof(sockaddr_in), "NetAddress mirrors sockaddr_in");
static_assert(sizeof(SOCKET) == sizeof(uint64_t), "SOCKET is 64 bits wide");

const WORD WINSOCK_VERSION_2_0 = MAKEWORD(2, 0);
const int SELECT_WIDTH = 1024;  // Windows ignores it; FD_SETSIZE of the POSIX side, where it counts

SOCKET Handle(uint64_t handle) { return static_cast<SOCKET>(handle); }

thread_local uint64_t switchedHandle = NET_INVALID_HANDLE;  // see ReceiveQueuedPlatformSocket

// NetAddress has sockaddr_in's layout (family, port, address, 8 zero bytes), so a copy converts.
sockaddr_in ToPlatform(const NetAddress* address) {
    sockaddr_in result;
    memcpy(&result, address, sizeof result);
    return result;
}
}  // namespace

int32_t StartSocketLibrary() {
    WSADATA data;
    return WSAStartup(WINSOCK_VERSION_2_0, &data) == 0 ? 0 : 1;
}

void StopSocketLibrary() { WSACleanup(); }

uint64_t OpenPlatformSocket(int32_t* error) {
    const SOCKET handle = socket(AF_INET, SOCK_DGRAM, 0);
    if (handle == INVALID_SOCKET) {
        *error = WSAGetLastError();
        return NET_INVALID_HANDLE;
    }
    // Windows hands a datagram socket the ICMP "port unreachable" of an earlier send as
    // WSAECONNRESET on its next receive. A server with nothing on port 123 would then read as an
    // invalid answer instead of silence, and the server role would fail a receive for every
    // client that went away. Best effort: without it, the old behaviour stays.
    BOOL report = FALSE;
    DWORD returned = 0;
    WSAIoctl(handle, SIO_UDP_CONNRESET, &report, sizeof report, nullptr, 0, &returned, nullptr, nullptr);
    return static_cast<uint64_t>(handle);
}

void ClosePlatformSocket(uint64_t handle) {
    if (switchedHandle == handle) {
        switchedHandle = NET_INVALID_HANDLE;
    }
    closesocket(Handle(handle));  // WSAENOTSOCK for no handle; nothing to do about it
}

int32_t SetPlatformSocketOption(uint64_t handle, int32_t option, int32_t value) {
    const int name = option == SOCKET_OPTION_BROADCAST        ? SO_BROADCAST
                     : option == SOCKET_OPTION_RECEIVE_BUFFER ? SO_RCVBUF
                                                              : SO_REUSEADDR;
    const int32_t setting = value;
    return setsockopt(Handle(handle), SOL_SOCKET, name, reinterpret_cast<const char*>(&setting), sizeof(setting)) == 0
               ? 0
               : -1;
}

int32_t BindPlatformSocket(uint64_t handle, const NetAddress* address, int32_t* error) {
    const sockaddr_in platform = ToPlatform(address);
    if (bind(Handle(handle), reinterpret_cast<const sockaddr*>(&platform), sizeof(platform)) == SOCKET_ERROR) {
        *error = WSAGetLastError();
        return -1;
    }
    return 0;
}

int32_t ReadPlatformSocketName(uint64_t handle, NetAddress* address) {
    sockaddr_in platform;
    memset(&platform, 0, sizeof(platform));
    int length = sizeof(platform);
    if (getsockname(Handle(handle), reinterpret_cast<sockaddr*>(&platform), &length) == SOCKET_ERROR) {
        return -1;
    }
    memcpy(address, &platform, sizeof *address);
    return 0;
}

int32_t SendPlatformSocket(uint64_t handle, const void* data, int32_t length, const NetAddress* to, int32_t* error) {
    const sockaddr_in platform = ToPlatform(to);
    const int sent = sendto(Handle(handle), static_cast<const char*>(data), length, 0,
                            reinterpret_cast<const sockaddr*>(&platform), sizeof(platform));
    if (sent == SOCKET_ERROR) {
        *error = WSAGetLastError();
        return -1;
    }
    return sent;
}

int32_t ReceivePlatformSocket(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from, int32_t* error) {
    sockaddr_in platform;
    memset(&platform, 0, sizeof(platform));
    int length = sizeof(platform);
    const int received = recvfrom(Handle(handle), static_cast<char*>(buffer), capacity, 0,
                                  reinterpret_cast<sockaddr*>(&platform), &length);
    if (received == SOCKET_ERROR) {
        *error = WSAGetLastError();
        return -1;
    }
    memcpy(from, &platform, sizeof *from);
    return received;
}

// Windows has no per-call flag, so the socket is switched to non-blocking for good, once per
// handle (under Wine every switch is a round trip to wineserver). The draining thread remembers
// the handle it switched; closing it on that thread forgets it, so a reused value is switched anew.
int32_t ReceiveQueuedPlatformSocket(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from,
                                    int32_t* error) {
    if (switchedHandle != handle) {
        u_long nonBlocking = 1;
        if (ioctlsocket(Handle(handle), FIONBIO, &nonBlocking) == SOCKET_ERROR) {
            *error = WSAGetLastError();
            return -1;
        }
        switchedHandle = handle;
    }
    const int32_t received = ReceivePlatformSocket(handle, buffer, capacity, from, error);
    return received == -1 && *error == WSAEWOULDBLOCK ? NET_NOTHING_QUEUED : received;
}

int32_t WaitPlatformReadable(uint64_t handle, uint32_t timeoutMs) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(Handle(handle), &readable);
    timeval timeout;
    timeout.tv_sec = static_cast<long>(timeoutMs / MS_PER_SECOND);
    timeout.tv_usec = static_cast<long>((timeoutMs % MS_PER_SECOND) * US_PER_MS);
    const int ready = select(SELECT_WIDTH, &readable, nullptr, nullptr, &timeout);
    if (ready == SOCKET_ERROR) {
        return -1;
    }
    return ready > 0 ? 1 : 0;
}

uint16_t NetworkPort(uint16_t hostPort) { return htons(hostPort); }

uint16_t HostPort(uint16_t networkPort) { return ntohs(networkPort); }
