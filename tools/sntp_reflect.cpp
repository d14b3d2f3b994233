// SntpReflect: the ceiling of the benchmark rig. The simplest loop of the server's shape, one
// thread: wait for a datagram, raise the thread's priority, and for every datagram queued (up to
// the server's batch) receive it, turn a 48-byte request into an answer that SntpLoad accepts (in
// place, reading no clock) and send it; then lower the priority. Its receive queue is the
// server's size.
// What the server could do if answering cost nothing; built for Linux and, to run under Wine,
// for Windows. A bounded time.
//
//   SntpReflect [-a ADDRESS (127.x.y.z, default 127.0.0.1)] [-p PORT (default 12399)] [-s SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/runtime.h"
#include "sntp/ntp_time.h"
#include "tools/loopback_udp.h"
#include "tools/tool_options.h"

namespace {
const long DEFAULT_PORT = 12399;  // the benchmarks' port, well away from the service's 123
const long DEFAULT_SECONDS = 60;
const long MAX_SECONDS = 3600;
const uint32_t SELECT_WAIT_MS = 200;  // how late the time limit may be noticed when nobody asks
const uint8_t ANSWER_STRATUM = 1;
const int USAGE_STATUS = 64;
const int32_t CAPACITY = 512;
const int32_t BATCH_LIMIT = 64;               // the server's
const int32_t RECEIVE_QUEUE_BYTES = 1 << 20;  // the server's
}  // namespace

int main(int argc, char** argv) {
    const char* address = "127.0.0.1";
    long port = DEFAULT_PORT;
    long seconds = DEFAULT_SECONDS;
    for (int i = 1; i < argc; i += 2) {
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        const bool loopback = std::strcmp(argv[i], "-a") == 0 && value != nullptr && LoopbackAddress(value) != 0;
        if (loopback) {
            address = value;
        }
        const bool known = loopback ||
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
    LoopbackUdp endpoint;
    const int32_t status = OpenLoopbackUdp(&endpoint, address, static_cast<uint16_t>(port), false);
    if (status != 0) {
        std::fprintf(stderr, "SntpReflect: cannot bind %s UDP %ld: %d\n", address, port, status);
        return 1;
    }
    SetLoopbackUdpReceiveBuffer(&endpoint, RECEIVE_QUEUE_BYTES);
    std::printf("reflecting on %s UDP port %ld for %ld s\n", address, port, seconds);
    std::fflush(stdout);

    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    unsigned long long reflected = 0;
    unsigned long long ignored = 0;
    uint8_t packet[CAPACITY];
    while (std::chrono::steady_clock::now() < deadline) {
        uint32_t sender = 0;
        uint16_t senderPort = 0;
        int32_t length = ReceiveLoopbackUdp(&endpoint, packet, CAPACITY, SELECT_WAIT_MS, &sender, &senderPort);
        if (length == 0) {
            continue;
        }
        SetCurrentThreadPriority(PRIORITY_HIGHEST);
        for (int32_t batch = 1; length > 0; ++batch) {
            if (length != static_cast<int32_t>(NTP_PACKET_SIZE)) {
                ignored += 1;
            } else {
                // The request's own transmit stamp serves as originate, receive and transmit: it
                // names the request, is never zero from SntpLoad, and keeps receive <= transmit.
                packet[0] = SNTP_ANSWER_TO_CLIENT;
                packet[1] = ANSWER_STRATUM;
                std::memcpy(packet + NTP_ORIGINATE_OFFSET, packet + NTP_TRANSMIT_OFFSET, NTP_STAMP_SIZE);
                std::memcpy(packet + NTP_RECEIVE_OFFSET, packet + NTP_TRANSMIT_OFFSET, NTP_STAMP_SIZE);
                SendLoopbackUdp(&endpoint, packet, static_cast<int32_t>(NTP_PACKET_SIZE), sender, senderPort);
                reflected += 1;
            }
            length = batch < BATCH_LIMIT ? ReceiveQueuedLoopbackUdp(&endpoint, packet, CAPACITY, &sender, &senderPort)
                                         : 0;
        }
        SetCurrentThreadPriority(PRIORITY_NORMAL);
    }
    CloseLoopbackUdp(&endpoint);
    std::printf("stopped; reflected %llu, ignored %llu\n", reflected, ignored);
    return 0;
}
