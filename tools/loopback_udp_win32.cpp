// Windows Sockets twin of the loopback test endpoint. Each open endpoint holds one WSAStartup
// reference of its own, independent of the product's NetSocket library count.
#include <winsock2.h>
#include <ws2tcpip.h>

#include <cstring>

#include "tools/loopback_udp.h"

namespace {
const uint64_t CLOSED = ~0ULL;
// The handle this thread switched to non-blocking: once per handle, as under Wine every switch
// is a round trip to wineserver. Closing it forgets it, so a reused handle value is switched anew.
thread_local uint64_t switched = CLOSED;
const uint32_t LOOPBACK_NET = 127;
const WORD WINSOCK_VERSION_2_2 = MAKEWORD(2, 2);

SOCKET Handle(const LoopbackUdp* endpoint) { return static_cast<SOCKET>(endpoint->handle); }
}  // namespace

uint32_t LoopbackAddress(const char* text) {
    in_addr parsed;
    if (text == nullptr || inet_pton(AF_INET, text, &parsed) != 1) {
        return 0;
    }
    return (ntohl(parsed.s_addr) >> 24) == LOOPBACK_NET ? parsed.s_addr : 0;
}

int32_t OpenLoopbackUdp(LoopbackUdp* endpoint, const char* address, uint16_t port, bool shared) {
    endpoint->handle = CLOSED;
    WSADATA data;
    if (WSAStartup(WINSOCK_VERSION_2_2, &data) != 0) {
        return WSASYSNOTREADY;
    }
    const uint32_t bindAddress = LoopbackAddress(address);
    if (bindAddress == 0) {
        WSACleanup();
        return WSAEINVAL;  // never anything but loopback
    }
    const SOCKET handle = socket(AF_INET, SOCK_DGRAM, 0);
    if (handle == INVALID_SOCKET) {
        const int error = WSAGetLastError();
        WSACleanup();
        return error;
    }
    // Windows lets a later SO_REUSEADDR bind take over a port unless the holder is exclusive.
    const BOOL on = TRUE;
    setsockopt(handle, SOL_SOCKET, shared ? SO_REUSEADDR : SO_EXCLUSIVEADDRUSE, reinterpret_cast<const char*>(&on),
               sizeof on);
    sockaddr_in local;
    std::memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    local.sin_addr.s_addr = bindAddress;
    if (bind(handle, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        const int error = WSAGetLastError();
        closesocket(handle);
        WSACleanup();
        return error;
    }
    endpoint->handle = static_cast<uint64_t>(handle);
    return 0;
}

void CloseLoopbackUdp(LoopbackUdp* endpoint) {
    if (endpoint->handle != CLOSED) {
        if (switched == endpoint->handle) {
            switched = CLOSED;
        }
        closesocket(Handle(endpoint));
        endpoint->handle = CLOSED;
        WSACleanup();
    }
}

int32_t SendLoopbackUdp(LoopbackUdp* endpoint, const void* data, int32_t length, uint32_t address, uint16_t port) {
    sockaddr_in to;
    std::memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = address;
    const int sent = sendto(Handle(endpoint), static_cast<const char*>(data), length, 0,
                            reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent == SOCKET_ERROR ? -1 : sent;
}

int32_t ReceiveLoopbackUdp(LoopbackUdp* endpoint, void* buffer, int32_t capacity, uint32_t timeoutMs,
                           uint32_t* senderAddress, uint16_t* senderPort) {
    fd_set readable;
    FD_ZERO(&readable);
    FD_SET(Handle(endpoint), &readable);
    timeval wait = {static_cast<long>(timeoutMs / 1000), static_cast<long>(timeoutMs % 1000) * 1000};
    const int ready = select(0, &readable, nullptr, nullptr, &wait);
    if (ready <= 0) {
        return ready < 0 ? -1 : 0;
    }
    sockaddr_in from;
    std::memset(&from, 0, sizeof from);
    int fromLength = sizeof from;
    int received = recvfrom(Handle(endpoint), static_cast<char*>(buffer), capacity, 0,
                            reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (received == SOCKET_ERROR) {
        // An over-long datagram: the first capacity bytes were stored; its length is unknown
        // here, so report it as one byte longer than the buffer.
        if (WSAGetLastError() != WSAEMSGSIZE) {
            return -1;
        }
        received = capacity + 1;
    }
    if (senderAddress != nullptr) {
        *senderAddress = from.sin_addr.s_addr;
    }
    if (senderPort != nullptr) {
        *senderPort = ntohs(from.sin_port);
    }
    return received;
}

int32_t ReceiveQueuedLoopbackUdp(LoopbackUdp* endpoint, void* buffer, int32_t capacity, uint32_t* senderAddress,
                                 uint16_t* senderPort) {
    if (switched != endpoint->handle) {
        u_long nonBlocking = 1;
        ioctlsocket(Handle(endpoint), FIONBIO, &nonBlocking);
        switched = endpoint->handle;
    }
    sockaddr_in from;
    std::memset(&from, 0, sizeof from);
    int fromLength = sizeof from;
    const int received = recvfrom(Handle(endpoint), static_cast<char*>(buffer), capacity, 0,
                                  reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (received == SOCKET_ERROR) {
        return WSAGetLastError() == WSAEWOULDBLOCK ? 0 : -1;
    }
    *senderAddress = from.sin_addr.s_addr;
    *senderPort = ntohs(from.sin_port);
    return received;
}

int32_t SetLoopbackUdpReceiveBuffer(LoopbackUdp* endpoint, int32_t bytes) {
    const int size = bytes;
    return setsockopt(Handle(endpoint), SOL_SOCKET, SO_RCVBUF, reinterpret_cast<const char*>(&size), sizeof size) == 0
               ? 0
               : -1;
}

uint16_t LoopbackUdpPort(const LoopbackUdp* endpoint) {
    sockaddr_in local;
    std::memset(&local, 0, sizeof local);
    int length = sizeof local;
    if (endpoint->handle == CLOSED || getsockname(Handle(endpoint), reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        return 0;
    }
    return ntohs(local.sin_port);
}
