// BSD-socket edge of NetSocket for the native build: file descriptors widened to 64 bits,
// errno as the error code, poll for readability (select cannot take descriptors past 1023).
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "net/socket_platform.h"

namespace {
static_assert(sizeof(NetAddress) == sizeof(sockaddr_in), "NetAddress mirrors sockaddr_in");

const uint32_t MAX_POLL_TIMEOUT_MS = 0x7FFFFFFFu;

// A descriptor, or -1 for a handle that cannot be one.
int Descriptor(uint64_t handle) {
    return handle > static_cast<uint64_t>(INT32_MAX) ? -1 : static_cast<int>(handle);
}

// NetAddress has sockaddr_in's layout (family, port, address, 8 zero bytes), so a copy converts.
sockaddr_in ToPlatform(const NetAddress* address) {
    sockaddr_in result;
    memcpy(&result, address, sizeof result);
    return result;
}
}  // namespace

int32_t StartSocketLibrary() { return 0; }

void StopSocketLibrary() {}

uint64_t OpenPlatformSocket(int32_t* error) {
    const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    if (descriptor < 0) {
        *error = errno;
        return NET_INVALID_HANDLE;
    }
    return static_cast<uint64_t>(descriptor);
}

void ClosePlatformSocket(uint64_t handle) {
    const int descriptor = Descriptor(handle);
    if (descriptor >= 0) {
        close(descriptor);
    }
}

int32_t SetPlatformSocketOption(uint64_t handle, int32_t option, int32_t value) {
    const int name = option == SOCKET_OPTION_BROADCAST        ? SO_BROADCAST
                     : option == SOCKET_OPTION_RECEIVE_BUFFER ? SO_RCVBUF
                                                              : SO_REUSEADDR;
    const int setting = value;
    return setsockopt(Descriptor(handle), SOL_SOCKET, name, &setting, sizeof(setting)) == 0 ? 0 : -1;
}

int32_t BindPlatformSocket(uint64_t handle, const NetAddress* address, int32_t* error) {
    const sockaddr_in platform = ToPlatform(address);
    if (bind(Descriptor(handle), reinterpret_cast<const sockaddr*>(&platform), sizeof(platform)) != 0) {
        *error = errno;
        return -1;
    }
    return 0;
}

int32_t ReadPlatformSocketName(uint64_t handle, NetAddress* address) {
    sockaddr_in platform;
    memset(&platform, 0, sizeof(platform));
    socklen_t length = sizeof(platform);
    if (getsockname(Descriptor(handle), reinterpret_cast<sockaddr*>(&platform), &length) != 0) {
        return -1;
    }
    memcpy(address, &platform, sizeof *address);
    return 0;
}

int32_t SendPlatformSocket(uint64_t handle, const void* data, int32_t length, const NetAddress* to, int32_t* error) {
    if (length < 0) {
        *error = EINVAL;
        return -1;
    }
    const sockaddr_in platform = ToPlatform(to);
    const ssize_t sent = sendto(Descriptor(handle), data, static_cast<size_t>(length), 0,
                                reinterpret_cast<const sockaddr*>(&platform), sizeof(platform));
    if (sent < 0) {
        *error = errno;
        return -1;
    }
    return static_cast<int32_t>(sent);
}

namespace {
int32_t ReceiveWithFlags(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from, int32_t* error,
                         int flags) {
    if (capacity < 0) {
        *error = EINVAL;
        return -1;
    }
    sockaddr_in platform;
    memset(&platform, 0, sizeof(platform));
    socklen_t length = sizeof(platform);
    const ssize_t received = recvfrom(Descriptor(handle), buffer, static_cast<size_t>(capacity), flags,
                                      reinterpret_cast<sockaddr*>(&platform), &length);
    if (received < 0 && (flags & MSG_DONTWAIT) != 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        return NET_NOTHING_QUEUED;
    }
    if (received < 0) {
        *error = errno;
        return -1;
    }
    memcpy(from, &platform, sizeof *from);
    return static_cast<int32_t>(received);
}
}  // namespace

int32_t ReceivePlatformSocket(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from, int32_t* error) {
    return ReceiveWithFlags(handle, buffer, capacity, from, error, 0);
}

// MSG_DONTWAIT leaves the descriptor blocking for everyone else: one call per datagram.
int32_t ReceiveQueuedPlatformSocket(uint64_t handle, void* buffer, int32_t capacity, NetAddress* from,
                                    int32_t* error) {
    return ReceiveWithFlags(handle, buffer, capacity, from, error, MSG_DONTWAIT);
}

int32_t WaitPlatformReadable(uint64_t handle, uint32_t timeoutMs) {
    const int descriptor = Descriptor(handle);
    if (descriptor < 0) {
        return -1;
    }
    pollfd watched;
    watched.fd = descriptor;
    watched.events = POLLIN;
    watched.revents = 0;
    const int ready = poll(&watched, 1, static_cast<int>(timeoutMs < MAX_POLL_TIMEOUT_MS ? timeoutMs : MAX_POLL_TIMEOUT_MS));
    if (ready < 0 || (watched.revents & POLLNVAL) != 0) {
        return -1;
    }
    return ready > 0 ? 1 : 0;
}

uint16_t NetworkPort(uint16_t hostPort) { return htons(hostPort); }

uint16_t HostPort(uint16_t networkPort) { return ntohs(networkPort); }
