// SntpReflect: the ceiling of the benchmark rig (Linux only). It turns each 48-byte request it
// receives into an answer that SntpLoad accepts, in place and without reading any clock, and
// sends it straight back: what loopback UDP and the load generator can do when the responder
// costs next to nothing. One thread, blocking receive, a bounded time.
//
//   SntpReflect [-a ADDRESS (127.x.y.z, default 127.0.0.1)] [-p PORT (default 12399)] [-s SECONDS]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sntp/ntp_time.h"
#include "tools/tool_options.h"

namespace {
const long DEFAULT_PORT = 12399;  // the benchmarks' port, well away from the service's 123
const long DEFAULT_SECONDS = 60;
const long MAX_SECONDS = 3600;
const long RECEIVE_WAIT_US = 200000;  // how late the time limit may be noticed when nobody asks
const uint8_t ANSWER_HEADER = 0x1C;   // leap 0, version 3, mode 4
const uint8_t ANSWER_STRATUM = 1;
const uint32_t STAMP_SIZE = 8;
const uint32_t LOOPBACK_NET = 127;
const int USAGE_STATUS = 64;
const int CAPACITY = 512;

bool ParseLoopback(const char* text, in_addr* address) {
    return text != nullptr && inet_pton(AF_INET, text, address) == 1 && (ntohl(address->s_addr) >> 24) == LOOPBACK_NET;
}
}  // namespace

int main(int argc, char** argv) {
    in_addr address;
    inet_pton(AF_INET, "127.0.0.1", &address);
    long port = DEFAULT_PORT;
    long seconds = DEFAULT_SECONDS;
    for (int i = 1; i < argc; i += 2) {
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        const bool known = (std::strcmp(argv[i], "-a") == 0 && ParseLoopback(value, &address)) ||
                           (std::strcmp(argv[i], "-p") == 0 && ParseNumber(value, 1, 65535, &port)) ||
                           (std::strcmp(argv[i], "-s") == 0 && ParseNumber(value, 1, MAX_SECONDS, &seconds));
        if (!known) {
            std::fprintf(stderr,
                         "usage: SntpReflect [-a ADDRESS (127.x.y.z, default 127.0.0.1)] [-p PORT (default %ld)]\n"
                         "                   [-s SECONDS (1..%ld, default %ld)]\n",
                         DEFAULT_PORT, MAX_SECONDS, DEFAULT_SECONDS);
            return USAGE_STATUS;
        }
    }
    const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    if (descriptor < 0) {
        std::perror("SntpReflect: socket");
        return 1;
    }
    // A bounded wait, so that the time limit ends the loop even when no request comes.
    timeval wait = {0, RECEIVE_WAIT_US};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    sockaddr_in local;
    std::memset(&local, 0, sizeof local);
    local.sin_family = AF_INET;
    local.sin_port = htons(static_cast<uint16_t>(port));
    local.sin_addr = address;
    if (bind(descriptor, reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        std::perror("SntpReflect: bind");
        close(descriptor);
        return 1;
    }
    std::printf("reflecting on %s UDP port %ld for %ld s\n", inet_ntoa(address), port, seconds);
    std::fflush(stdout);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    unsigned long long reflected = 0;
    unsigned long long ignored = 0;
    uint8_t packet[CAPACITY];
    while (std::chrono::steady_clock::now() < deadline) {
        sockaddr_in sender;
        socklen_t senderSize = sizeof sender;
        const ssize_t length = recvfrom(descriptor, packet, sizeof packet, 0, reinterpret_cast<sockaddr*>(&sender),
                                        &senderSize);
        if (length != static_cast<ssize_t>(NTP_PACKET_SIZE)) {
            ignored += length > 0 ? 1 : 0;
            continue;
        }
        // The request's own transmit stamp serves as originate, receive and transmit: it names
        // the request, is never zero from SntpLoad, and keeps receive <= transmit.
        packet[0] = ANSWER_HEADER;
        packet[1] = ANSWER_STRATUM;
        std::memcpy(packet + NTP_ORIGINATE_OFFSET, packet + NTP_TRANSMIT_OFFSET, STAMP_SIZE);
        std::memcpy(packet + NTP_RECEIVE_OFFSET, packet + NTP_TRANSMIT_OFFSET, STAMP_SIZE);
        sendto(descriptor, packet, NTP_PACKET_SIZE, 0, reinterpret_cast<const sockaddr*>(&sender), senderSize);
        reflected += 1;
    }
    close(descriptor);
    std::printf("stopped; reflected %llu, ignored %llu\n", reflected, ignored);
    return 0;
}
