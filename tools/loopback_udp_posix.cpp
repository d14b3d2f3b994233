// BSD-socket twin of the loopback test endpoint.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "tools/loopback_udp.h"

namespace {
const uint64_t CLOSED = ~0ULL;
const uint32_t LOOPBACK_NET = 127;

int Descriptor(const LoopbackUdp* endpoint) { return static_cast<int>(endpoint->handle); }
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
    const uint32_t bindAddress = LoopbackAddress(address);
    if (bindAddress == 0) {
        return EINVAL;  // never anything but loopback
    }
    const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    if (descriptor < 0) {
        return errno;
    }
    if (shared) {
        const int on = 1;
        setsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    }
    sockaddr_in local;
    std::memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(port);
    local.sin_addr.s_addr = bindAddress;
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        const int error = errno;
        close(descriptor);
        return error;
    }
    endpoint->handle = static_cast<uint64_t>(descriptor);
    return 0;
}

void CloseLoopbackUdp(LoopbackUdp* endpoint) {
    if (endpoint->handle != CLOSED) {
        close(Descriptor(endpoint));
        endpoint->handle = CLOSED;
    }
}

int32_t SendLoopbackUdp(LoopbackUdp* endpoint, const void* data, int32_t length, uint32_t address, uint16_t port) {
    sockaddr_in to;
    std::memset(&to, 0, sizeof to);
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = address;
    const ssize_t sent = sendto(Descriptor(endpoint), data, static_cast<size_t>(length), 0,
                                reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent < 0 ? -1 : static_cast<int32_t>(sent);
}

namespace {
// One datagram with its sender; a negative result is recvfrom's, errno as it left it.
ssize_t ReceiveFrom(LoopbackUdp* endpoint, void* buffer, int32_t capacity, int flags, uint32_t* senderAddress,
                    uint16_t* senderPort) {
    sockaddr_in from;
    std::memset(&from, 0, sizeof from);
    socklen_t fromLength = sizeof from;
    const ssize_t received = recvfrom(Descriptor(endpoint), buffer, static_cast<size_t>(capacity), flags,
                                      reinterpret_cast<sockaddr*>(&from), &fromLength);
    if (received >= 0 && senderAddress != nullptr) {
        *senderAddress = from.sin_addr.s_addr;
    }
    if (received >= 0 && senderPort != nullptr) {
        *senderPort = ntohs(from.sin_port);
    }
    return received;
}
}  // namespace

int32_t ReceiveLoopbackUdp(LoopbackUdp* endpoint, void* buffer, int32_t capacity, uint32_t timeoutMs,
                           uint32_t* senderAddress, uint16_t* senderPort) {
    pollfd watched = {Descriptor(endpoint), POLLIN, 0};
    const int ready = poll(&watched, 1, static_cast<int>(timeoutMs));
    if (ready <= 0) {
        return ready < 0 ? -1 : 0;
    }
    // MSG_TRUNC: the datagram's real length, as a test of length handling needs it.
    const ssize_t received = ReceiveFrom(endpoint, buffer, capacity, MSG_TRUNC, senderAddress, senderPort);
    return received < 0 ? -1 : static_cast<int32_t>(received);
}

int32_t ReceiveQueuedLoopbackUdp(LoopbackUdp* endpoint, void* buffer, int32_t capacity, uint32_t* senderAddress,
                                 uint16_t* senderPort) {
    const ssize_t received = ReceiveFrom(endpoint, buffer, capacity, MSG_DONTWAIT, senderAddress, senderPort);
    if (received < 0) {
        return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;
    }
    return static_cast<int32_t>(received);
}

int32_t SetLoopbackUdpReceiveBuffer(LoopbackUdp* endpoint, int32_t bytes) {
    const int size = bytes;
    return setsockopt(Descriptor(endpoint), SOL_SOCKET, SO_RCVBUF, &size, sizeof size) == 0 ? 0 : -1;
}

uint16_t LoopbackUdpPort(const LoopbackUdp* endpoint) {
    sockaddr_in local;
    std::memset(&local, 0, sizeof local);
    socklen_t length = sizeof local;
    if (endpoint->handle == CLOSED ||
        getsockname(Descriptor(endpoint), reinterpret_cast<sockaddr*>(&local), &length) != 0) {
        return 0;
    }
    return ntohs(local.sin_port);
}
