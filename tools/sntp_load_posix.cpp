// SntpLoad: an open-loop SNTP load on a server of the loopback, as the field's benchmarks load a
// server: requests go out paced by the clock at an offered rate, whatever the answers do, from
// many sources (127.0.0.2, 127.0.0.3, ... each its own socket and port), so that the server and
// not the round trip sets the rate. Every answer is checked (origin echo, mode, version, stratum,
// stamps) and matched to its request; one unanswered within ANSWER_WAIT_MS is lost, and an answer
// after that is late. Linux only (epoll, /proc), as it runs beside the servers it measures.
//
//   SntpLoad [-a SERVER] [-p PORT] [-s SOURCES] [-r RATE] [-d SECONDS] [-c COUNT]
//            [-S START_RATE] [-l LATENCY_RATE] [-P PID[,PID...]]
//
// -r: one run at RATE requests/s for SECONDS (or COUNT requests). -S: a sweep of steps of
// SECONDS, doubling from START_RATE until more than 0.1 % of requests go unanswered or wrong,
// then bisecting, ending with the highest clean rate; then, with -l, a run at LATENCY_RATE for
// the latency percentiles. -P: the server's processes, whose CPU time (utime + stime from
// /proc/PID/stat) per good answer is printed beside each rate, as is this process's own share of
// its core. Under Wine every endpoint answers from 127.0.0.1, so there the sources differ by port.
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "sntp/ntp_time.h"
#include "tools/loopback_udp.h"
#include "tools/tool_options.h"

namespace {
const int64_t ANSWER_WAIT_NS = 200000000;  // 200 ms: later than this, a request counts as lost
const int64_t TICK_NS = 250000;            // requests due are sent in bursts at this pace
const long MAX_SOURCES = 250;              // 127.0.0.2 .. 127.0.0.251
const long MAX_RATE = 10000000;
const long MAX_COUNT = 100000000;
const long MAX_SECONDS = 600;
const double CLEAN_SHARE = 0.001;          // at most 0.1 % lost or wrong: a clean step
const int MAX_DOUBLINGS = 14;
const int MAX_HALVINGS = 6;
const int MAX_BISECTIONS = 5;
const size_t RING = 1 << 22;               // requests remembered; more than 200 ms at any rate here
const int32_t CAPACITY = 512;
const int MAX_PIDS = 8;
const int USAGE_STATUS = 64;
const uint8_t PENDING = 1, ANSWERED = 2, LOST = 3;

struct LoadOptions {
    const char* server = "127.0.0.1";
    long port = 123;
    long sources = 200;
    long rate = 1000;
    long seconds = 1;
    long count = MAX_COUNT;
    long sweepStart = 0;
    long latencyRate = 0;
    int pids[MAX_PIDS] = {};
    int pidCount = 0;
};

struct Step {
    uint64_t sent = 0, good = 0, bad = 0, lost = 0, late = 0;
    double seconds = 0;
    double serverCpuUs = 0;  // per good answer
    double loadCpuShare = 0; // of one core
    std::vector<uint32_t> latencyUs;
};

LoadOptions options;
std::vector<LoopbackUdp> endpoints;
int poller = -1;
std::vector<int64_t> sentAt(RING);
std::vector<uint8_t> state(RING);
uint64_t nextId = 1;  // ids run on across steps, so a late answer of an earlier step is known

int64_t NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool ParsePids(const char* text) {
    while (text != nullptr && *text != '\0' && options.pidCount < MAX_PIDS) {
        char* end = nullptr;
        const long pid = std::strtol(text, &end, 10);
        if (end == text || pid <= 0) {
            return false;
        }
        options.pids[options.pidCount++] = static_cast<int>(pid);
        text = *end == ',' ? end + 1 : end;
    }
    return text != nullptr && *text == '\0';
}

bool ParseOptions(int argc, char** argv) {
    for (int i = 1; i < argc; i += 2) {
        const char* flag = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        bool ok;
        if (std::strcmp(flag, "-a") == 0) {
            options.server = value;
            ok = value != nullptr && LoopbackAddress(value) != 0;
        } else if (std::strcmp(flag, "-p") == 0) {
            ok = ParseNumber(value, 1, 65535, &options.port);
        } else if (std::strcmp(flag, "-s") == 0) {
            ok = ParseNumber(value, 1, MAX_SOURCES, &options.sources);
        } else if (std::strcmp(flag, "-r") == 0) {
            ok = ParseNumber(value, 1, MAX_RATE, &options.rate);
        } else if (std::strcmp(flag, "-d") == 0) {
            ok = ParseNumber(value, 1, MAX_SECONDS, &options.seconds);
        } else if (std::strcmp(flag, "-c") == 0) {
            ok = ParseNumber(value, 1, MAX_COUNT, &options.count);
        } else if (std::strcmp(flag, "-S") == 0) {
            ok = ParseNumber(value, 1, MAX_RATE, &options.sweepStart);
        } else if (std::strcmp(flag, "-l") == 0) {
            ok = ParseNumber(value, 1, MAX_RATE, &options.latencyRate);
        } else if (std::strcmp(flag, "-P") == 0) {
            ok = ParsePids(value);
        } else {
            ok = false;
        }
        if (!ok) {
            return false;
        }
    }
    return true;
}

// Clock ticks of user and system time of the server's processes so far.
long long ServerTicks() {
    long long total = 0;
    for (int i = 0; i < options.pidCount; ++i) {
        char path[64];
        std::snprintf(path, sizeof path, "/proc/%d/stat", options.pids[i]);
        FILE* file = std::fopen(path, "r");
        if (file == nullptr) {
            continue;
        }
        char line[1024] = {};
        const size_t length = std::fread(line, 1, sizeof line - 1, file);
        std::fclose(file);
        line[length] = '\0';
        // Fields after the command name, which may hold spaces: state is field 3, utime 14.
        const char* rest = std::strrchr(line, ')');
        unsigned long long utime = 0, stime = 0;
        if (rest != nullptr && std::sscanf(rest + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %llu %llu", &utime,
                                           &stime) == 2) {
            total += static_cast<long long>(utime + stime);
        }
    }
    return total;
}

double OwnCpuSeconds() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// What a version-3 server owes a client request: no leap warning, version 3, server mode, a
// stratum of 1 to 15, and a transmit stamp that is set and not before the receive stamp. The
// echo of our id was matched by the caller.
bool IsValidAnswer(const uint8_t* answer, ssize_t length) {
    if (length != static_cast<ssize_t>(NTP_PACKET_SIZE) || answer[0] != SNTP_ANSWER_TO_CLIENT || answer[1] == 0 ||
        answer[1] > 15) {
        return false;
    }
    const uint64_t received = LoadBigEndian64(answer + NTP_RECEIVE_OFFSET);
    const uint64_t sent = LoadBigEndian64(answer + NTP_TRANSMIT_OFFSET);
    return sent != 0 && received <= sent;
}

void TakeAnswer(const uint8_t* answer, ssize_t length, int64_t now, Step* step) {
    const uint64_t id = length >= 32 ? LoadBigEndian64(answer + NTP_ORIGINATE_OFFSET) : 0;
    if (id == 0 || id >= nextId || nextId - id >= RING) {
        step->bad += 1;  // answers no request of ours (or one long forgotten)
        return;
    }
    uint8_t& slot = state[id % RING];
    if (slot == LOST) {
        step->late += 1;
    } else if (slot != PENDING || !IsValidAnswer(answer, length)) {
        step->bad += 1;  // a second answer, or a wrong one
    } else {
        slot = ANSWERED;
        step->good += 1;
        step->latencyUs.push_back(static_cast<uint32_t>((now - sentAt[id % RING]) / 1000));
    }
}

void DrainSocket(int descriptor, int64_t now, Step* step) {
    uint8_t answer[CAPACITY];
    for (;;) {
        const ssize_t length = recv(descriptor, answer, sizeof answer, MSG_DONTWAIT);
        if (length < 0) {
            return;
        }
        TakeAnswer(answer, length, now, step);
    }
}

// One open-loop run at rate for seconds (at most count requests), every request then waited for.
Step RunAtRate(long rate, long seconds, long count) {
    Step step;
    const uint32_t server = LoopbackAddress(options.server);
    const uint16_t port = static_cast<uint16_t>(options.port);
    const long long ticksBefore = ServerTicks();
    const double cpuBefore = OwnCpuSeconds();
    const int64_t start = NowNs();
    const int64_t sendEnd = start + seconds * 1000000000LL;
    const uint64_t firstId = nextId;
    uint64_t oldest = firstId;
    uint8_t request[NTP_PACKET_SIZE];
    epoll_event events[64];
    for (;;) {
        int64_t now = NowNs();
        const uint64_t sent = nextId - firstId;
        const uint64_t due = now >= sendEnd ? sent
                                            : std::min<uint64_t>(static_cast<uint64_t>(count),
                                                                 static_cast<uint64_t>((now - start) / 1e9 * rate) + 1);
        for (uint64_t i = sent; i < due; ++i) {
            std::memset(request, 0, sizeof request);
            request[0] = SNTP_CLIENT_REQUEST;
            const uint64_t id = nextId++;
            StoreBigEndian64(request + NTP_TRANSMIT_OFFSET, id);
            sentAt[id % RING] = now;
            state[id % RING] = PENDING;
            SendLoopbackUdp(&endpoints[id % endpoints.size()], request, static_cast<int32_t>(NTP_PACKET_SIZE), server,
                            port);
            step.sent += 1;
        }
        while (oldest < nextId && (state[oldest % RING] != PENDING || now - sentAt[oldest % RING] > ANSWER_WAIT_NS)) {
            if (state[oldest % RING] == PENDING) {
                state[oldest % RING] = LOST;
                step.lost += 1;
            }
            ++oldest;
        }
        const bool allSent = now >= sendEnd || step.sent >= static_cast<uint64_t>(count);
        if (allSent && oldest == nextId) {
            break;
        }
        const int64_t wait = allSent ? TICK_NS * 4 : TICK_NS - (now - start) % TICK_NS;
        const timespec timeout = {0, static_cast<long>(wait)};
        const int ready = epoll_pwait2(poller, events, 64, &timeout, nullptr);
        now = NowNs();
        for (int i = 0; i < ready; ++i) {
            DrainSocket(events[i].data.fd, now, &step);
        }
    }
    step.seconds = static_cast<double>(NowNs() - start) / 1e9;
    step.loadCpuShare = (OwnCpuSeconds() - cpuBefore) / step.seconds;
    const double ticks = static_cast<double>(ServerTicks() - ticksBefore);
    step.serverCpuUs = step.good > 0 ? ticks * 1e6 / static_cast<double>(sysconf(_SC_CLK_TCK)) / step.good : 0;
    std::sort(step.latencyUs.begin(), step.latencyUs.end());
    return step;
}

bool IsClean(const Step& step) {
    return step.good > 0 && static_cast<double>(step.lost + step.bad) <= CLEAN_SHARE * static_cast<double>(step.sent);
}

void PrintStep(long rate, const Step& step) {
    std::printf("step rate %ld sent %llu good %llu lost %llu late %llu bad %llu loss %.3f%% answers/s %.0f "
                "cpu %.2f us/answer load-cpu %.0f%%\n",
                rate, static_cast<unsigned long long>(step.sent), static_cast<unsigned long long>(step.good),
                static_cast<unsigned long long>(step.lost), static_cast<unsigned long long>(step.late),
                static_cast<unsigned long long>(step.bad),
                step.sent > 0 ? 100.0 * static_cast<double>(step.lost + step.bad) / static_cast<double>(step.sent) : 0,
                static_cast<double>(step.good) / step.seconds, step.serverCpuUs, 100 * step.loadCpuShare);
    std::fflush(stdout);
}

uint32_t Percentile(const std::vector<uint32_t>& sorted, double share) {
    if (sorted.empty()) {
        return 0;
    }
    return sorted[std::min(static_cast<size_t>(share * static_cast<double>(sorted.size() - 1) + 0.5), sorted.size() - 1)];
}

void PrintLatency(long rate, const Step& step) {
    const std::vector<uint32_t>& us = step.latencyUs;
    std::printf("latency rate %ld us p50 %u p90 %u p99 %u p99.9 %u max %u\n", rate, Percentile(us, 0.5),
                Percentile(us, 0.9), Percentile(us, 0.99), Percentile(us, 0.999), us.empty() ? 0u : us.back());
}

// Doubling from the start rate (halving first if that is not clean), then bisecting.
int Sweep() {
    long good = 0, bad = 0;
    Step best;
    long rate = options.sweepStart;
    for (int i = 0; i < MAX_DOUBLINGS && bad == 0; ++i, rate *= 2) {
        const Step step = RunAtRate(rate, options.seconds, MAX_COUNT);
        PrintStep(rate, step);
        if (IsClean(step)) {
            good = rate;
            best = step;
        } else {
            bad = rate;
        }
    }
    for (int i = 0; i < MAX_HALVINGS && good == 0 && bad > 1; ++i) {
        rate = bad / 2;
        const Step step = RunAtRate(rate, options.seconds, MAX_COUNT);
        PrintStep(rate, step);
        (IsClean(step) ? good : bad) = rate;
        if (IsClean(step)) {
            best = step;
        }
    }
    for (int i = 0; i < MAX_BISECTIONS && good > 0 && bad > good + good / 32; ++i) {
        rate = (good + bad) / 2;
        const Step step = RunAtRate(rate, options.seconds, MAX_COUNT);
        PrintStep(rate, step);
        if (IsClean(step)) {
            good = rate;
            best = step;
        } else {
            bad = rate;
        }
    }
    std::printf("clean rate %ld answers/s %.0f cpu %.2f us/answer load-cpu %.0f%%\n", good,
                best.seconds > 0 ? static_cast<double>(best.good) / best.seconds : 0, best.serverCpuUs,
                100 * best.loadCpuShare);
    if (options.latencyRate > 0) {
        const Step step = RunAtRate(options.latencyRate, options.seconds, MAX_COUNT);
        PrintStep(options.latencyRate, step);
        PrintLatency(options.latencyRate, step);
    }
    return good > 0 ? 0 : 1;
}
}  // namespace

int main(int argc, char** argv) {
    if (!ParseOptions(argc, argv)) {
        std::fprintf(stderr,
                     "usage: SntpLoad [-a SERVER (127.x.y.z, default 127.0.0.1)] [-p PORT (default 123)]\n"
                     "                [-s SOURCES (1..%ld, default 200)] [-r RATE (requests/s, default 1000)]\n"
                     "                [-d SECONDS (per run or step, 1..%ld, default 1)] [-c COUNT]\n"
                     "                [-S START_RATE (sweep)] [-l LATENCY_RATE] [-P PID[,PID...]]\n",
                     MAX_SOURCES, MAX_SECONDS);
        return USAGE_STATUS;
    }
    poller = epoll_create1(0);
    for (long source = 0; source < options.sources; ++source) {
        char address[32];
        std::snprintf(address, sizeof address, "127.0.0.%ld", source + 2);
        LoopbackUdp endpoint{~0ULL};
        if (OpenLoopbackUdp(&endpoint, address, 0) != 0) {
            continue;
        }
        epoll_event watch = {};
        watch.events = EPOLLIN;
        watch.data.fd = static_cast<int>(endpoint.handle);
        epoll_ctl(poller, EPOLL_CTL_ADD, watch.data.fd, &watch);
        endpoints.push_back(endpoint);
    }
    if (poller < 0 || endpoints.empty()) {
        std::fprintf(stderr, "SntpLoad: no loopback source could be opened\n");
        return 1;
    }
    int status;
    if (options.sweepStart > 0) {
        status = Sweep();
    } else {
        const Step step = RunAtRate(options.rate, options.seconds, options.count);
        PrintStep(options.rate, step);
        PrintLatency(options.rate, step);
        status = step.good > 0 && step.bad == 0 ? 0 : 1;
    }
    for (LoopbackUdp& endpoint : endpoints) {
        CloseLoopbackUdp(&endpoint);
    }
    close(poller);
    return status;
}
