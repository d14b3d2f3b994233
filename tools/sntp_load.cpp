// SntpLoad: a bounded SNTP load on a server of the loopback. Worker threads each own some of
// the source endpoints 127.0.0.2, 127.0.0.3, ... and run a closed loop: send one version-3
// client request, wait for its answer, check it, time it. It stops after COUNT requests or
// SECONDS, whichever comes first, and prints the counts, the rate and latency percentiles.
//
//   SntpLoad [-a SERVER] [-p PORT] [-s SOURCES] [-w WORKERS] [-c COUNT] [-d SECONDS]
//
// Loopback only. Under Wine every endpoint answers from 127.0.0.1 whatever address it bound
// (Wine binds the interface), so there the sources differ by port alone.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "sntp/ntp_time.h"
#include "tools/loopback_udp.h"
#include "tools/tool_options.h"

namespace {
const uint32_t ANSWER_WAIT_MS = 1000;     // a request unanswered this long counts as lost
const long MAX_SOURCES = 250;             // 127.0.0.2 .. 127.0.0.251
const long MAX_WORKERS = 64;
const long MAX_COUNT = 10000000;
const long MAX_SECONDS = 600;
const int32_t CAPACITY = 512;
const int USAGE_STATUS = 64;

struct LoadOptions {
    const char* server = "127.0.0.1";
    long port = 123;
    long sources = 50;
    long workers = 4;
    long count = 100000;
    long seconds = 10;
};

struct WorkerTally {
    uint64_t sent = 0;
    uint64_t good = 0;
    uint64_t bad = 0;    // answered, but not a valid answer to our request
    uint64_t lost = 0;
    uint64_t late = 0;   // answers to requests already counted as lost
    std::vector<uint32_t> latencyUs;
};

std::atomic<long> remaining{0};

bool ParseOptions(int argc, char** argv, LoadOptions* options) {
    for (int i = 1; i < argc; i += 2) {
        const char* flag = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        bool ok;
        if (std::strcmp(flag, "-a") == 0) {
            options->server = value;
            ok = value != nullptr && LoopbackAddress(value) != 0;
        } else if (std::strcmp(flag, "-p") == 0) {
            ok = ParseNumber(value, 1, 65535, &options->port);
        } else if (std::strcmp(flag, "-s") == 0) {
            ok = ParseNumber(value, 1, MAX_SOURCES, &options->sources);
        } else if (std::strcmp(flag, "-w") == 0) {
            ok = ParseNumber(value, 1, MAX_WORKERS, &options->workers);
        } else if (std::strcmp(flag, "-c") == 0) {
            ok = ParseNumber(value, 1, MAX_COUNT, &options->count);
        } else if (std::strcmp(flag, "-d") == 0) {
            ok = ParseNumber(value, 1, MAX_SECONDS, &options->seconds);
        } else {
            ok = false;
        }
        if (!ok) {
            return false;
        }
    }
    return options->workers <= options->sources;
}

// What a version-3 server owes a client request: server mode, a stratum, our stamp echoed, and
// a transmit time that is set and not before its receive time.
bool IsValidAnswer(const uint8_t* answer, int32_t length, const uint8_t* request) {
    if (length != static_cast<int32_t>(NTP_PACKET_SIZE) || answer[0] != SNTP_ANSWER_TO_CLIENT || answer[1] == 0) {
        return false;
    }
    const uint64_t received = LoadBigEndian64(answer + NTP_RECEIVE_OFFSET);
    const uint64_t sent = LoadBigEndian64(answer + NTP_TRANSMIT_OFFSET);
    return std::memcmp(answer + NTP_ORIGINATE_OFFSET, request + NTP_TRANSMIT_OFFSET, 8) == 0 && sent != 0 &&
           received <= sent;
}

void RunWorker(uint32_t worker, const LoadOptions& options, std::chrono::steady_clock::time_point deadline,
               WorkerTally* tally) {
    std::vector<LoopbackUdp> endpoints;
    for (long source = worker; source < options.sources; source += options.workers) {
        char address[32];
        std::snprintf(address, sizeof address, "127.0.0.%ld", source + 2);
        LoopbackUdp endpoint{~0ULL};
        if (OpenLoopbackUdp(&endpoint, address, 0) == 0) {
            endpoints.push_back(endpoint);
        }
    }
    const uint32_t server = LoopbackAddress(options.server);
    const uint16_t port = static_cast<uint16_t>(options.port);
    uint64_t sequence = 0;
    uint8_t request[NTP_PACKET_SIZE];
    uint8_t answer[CAPACITY];
    for (size_t next = 0; !endpoints.empty(); next = (next + 1) % endpoints.size()) {
        if (remaining.fetch_sub(1) <= 0 || std::chrono::steady_clock::now() >= deadline) {
            break;
        }
        std::memset(request, 0, sizeof request);
        request[0] = SNTP_CLIENT_REQUEST;
        // A stamp no other request of this run carries, so an answer names its request.
        StoreBigEndian64(request + NTP_TRANSMIT_OFFSET, (static_cast<uint64_t>(worker + 1) << 48) | ++sequence);
        LoopbackUdp* endpoint = &endpoints[next];
        const auto start = std::chrono::steady_clock::now();
        SendLoopbackUdp(endpoint, request, static_cast<int32_t>(NTP_PACKET_SIZE), server, port);
        tally->sent += 1;
        for (;;) {
            const int32_t length = ReceiveLoopbackUdp(endpoint, answer, CAPACITY, ANSWER_WAIT_MS, nullptr, nullptr);
            if (length <= 0) {
                tally->lost += 1;
                break;
            }
            if (length == static_cast<int32_t>(NTP_PACKET_SIZE) &&
                std::memcmp(answer + NTP_ORIGINATE_OFFSET, request + NTP_TRANSMIT_OFFSET, 8) != 0 &&
                answer[NTP_ORIGINATE_OFFSET] == 0 && answer[NTP_ORIGINATE_OFFSET + 1] == worker + 1) {
                tally->late += 1;  // an earlier request of this worker, already counted lost
                continue;
            }
            const auto took = std::chrono::steady_clock::now() - start;
            if (IsValidAnswer(answer, length, request)) {
                tally->good += 1;
                tally->latencyUs.push_back(static_cast<uint32_t>(
                    std::chrono::duration_cast<std::chrono::microseconds>(took).count()));
            } else {
                tally->bad += 1;
            }
            break;
        }
    }
    for (LoopbackUdp& endpoint : endpoints) {
        CloseLoopbackUdp(&endpoint);
    }
}

uint32_t Percentile(const std::vector<uint32_t>& sorted, double share) {
    if (sorted.empty()) {
        return 0;
    }
    const size_t index = static_cast<size_t>(share * static_cast<double>(sorted.size() - 1) + 0.5);
    return sorted[std::min(index, sorted.size() - 1)];
}
}  // namespace

int main(int argc, char** argv) {
    LoadOptions options;
    if (!ParseOptions(argc, argv, &options)) {
        std::fprintf(stderr,
                     "usage: SntpLoad [-a SERVER (127.x.y.z, default 127.0.0.1)] [-p PORT (default 123)]\n"
                     "                [-s SOURCES (1..%ld, default 50)] [-w WORKERS (1..%ld, <= SOURCES, default 4)]\n"
                     "                [-c COUNT (1..%ld, default 100000)] [-d SECONDS (1..%ld, default 10)]\n",
                     MAX_SOURCES, MAX_WORKERS, MAX_COUNT, MAX_SECONDS);
        return USAGE_STATUS;
    }
    remaining = options.count;
    const auto start = std::chrono::steady_clock::now();
    const auto deadline = start + std::chrono::seconds(options.seconds);
    std::vector<WorkerTally> tallies(static_cast<size_t>(options.workers));
    std::vector<std::thread> workers;
    for (long worker = 0; worker < options.workers; ++worker) {
        workers.emplace_back(RunWorker, static_cast<uint32_t>(worker), std::cref(options), deadline,
                             &tallies[static_cast<size_t>(worker)]);
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    WorkerTally total;
    for (const WorkerTally& tally : tallies) {
        total.sent += tally.sent;
        total.good += tally.good;
        total.bad += tally.bad;
        total.lost += tally.lost;
        total.late += tally.late;
        total.latencyUs.insert(total.latencyUs.end(), tally.latencyUs.begin(), tally.latencyUs.end());
    }
    std::sort(total.latencyUs.begin(), total.latencyUs.end());
    std::printf("sent %llu  good %llu  bad %llu  lost %llu  late %llu  in %.2f s  rate %.0f answers/s\n",
                static_cast<unsigned long long>(total.sent), static_cast<unsigned long long>(total.good),
                static_cast<unsigned long long>(total.bad), static_cast<unsigned long long>(total.lost),
                static_cast<unsigned long long>(total.late), elapsed, static_cast<double>(total.good) / elapsed);
    std::printf("latency us  p50 %u  p90 %u  p99 %u  p99.9 %u  max %u\n", Percentile(total.latencyUs, 0.50),
                Percentile(total.latencyUs, 0.90), Percentile(total.latencyUs, 0.99),
                Percentile(total.latencyUs, 0.999), total.latencyUs.empty() ? 0u : total.latencyUs.back());
    return total.bad == 0 && total.good > 0 ? 0 : 1;
}
