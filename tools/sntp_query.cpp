// SntpQuery: the field tool for "is that time server usable from here?". It runs the service's
// own SNTP exchange against a named server, once or COUNT times at an interval, and prints per
// exchange the result code and its trouble text, the server's time (UTC, ms), this machine's
// clock offset from it, the round-trip delay and the stratum:
//
//   SntpQuery 10.1.2.3 [-n COUNT] [-i SECONDS] [-t TIMEOUT_MS]
//   1  0 Ok  server 2026-11-22 06:40:01.123 UTC  offset -0.412 ms  delay 0.305 ms  stratum 1
//
// The round trip is timed on the millisecond tick count, so a loopback delay reads 0.000 ms.
// It only reads the clock, never sets it. Exit status 0 when every exchange succeeded, else the
// code of the last failure.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "net/net_socket.h"
#include "runtime/runtime.h"
#include "sntp/ntp_time.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_troubles.h"
#include "tools/tool_options.h"

namespace {
const int32_t DEFAULT_TIMEOUT_MS = 5000;  // the client's first attempt
const long MAX_COUNT = 100000;
const long MAX_INTERVAL_S = 86400;
const long MAX_TIMEOUT_MS = 600000;
const uint32_t MS_PER_SECOND = 1000;
const double FRACTION_PER_MS = 4294967.296;  // 2^32 / 1000
const int64_t SECONDS_PER_DAY = 86400;
const int32_t USAGE_STATUS = 64;
const size_t TEXT_LIMIT = 256;

struct QueryOptions {
    const char* server = nullptr;
    long count = 1;
    long intervalS = 1;
    long timeoutMs = DEFAULT_TIMEOUT_MS;
};

int Usage() {
    std::fprintf(stderr,
                 "usage: SntpQuery SERVER [-n COUNT] [-i SECONDS] [-t TIMEOUT_MS]\n"
                 "  SERVER   dotted IPv4 address or host name of an SNTP version-3 server (UDP 123)\n"
                 "  -n       exchanges to run (1..%ld, default 1)\n"
                 "  -i       seconds between exchanges (0..%ld, default 1)\n"
                 "  -t       time-out of one exchange in ms (default %d)\n"
                 "Reads the clock only; it never sets it.\n",
                 MAX_COUNT, MAX_INTERVAL_S, DEFAULT_TIMEOUT_MS);
    return USAGE_STATUS;
}

bool ParseOptions(int argc, char** argv, QueryOptions* options) {
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        if (std::strcmp(argument, "-n") == 0) {
            if (!ParseNumber(value, 1, MAX_COUNT, &options->count)) {
                return false;
            }
            ++i;
        } else if (std::strcmp(argument, "-i") == 0) {
            if (!ParseNumber(value, 0, MAX_INTERVAL_S, &options->intervalS)) {
                return false;
            }
            ++i;
        } else if (std::strcmp(argument, "-t") == 0) {
            if (!ParseNumber(value, 0, MAX_TIMEOUT_MS, &options->timeoutMs)) {
                return false;
            }
            ++i;
        } else if (argument[0] == '-' || options->server != nullptr) {
            return false;
        } else {
            options->server = argument;
        }
    }
    return options->server != nullptr;
}

// The trouble texts are plain ASCII; anything else would print as '?'.
void Narrow(const char16_t* text, char* out, size_t capacity) {
    size_t i = 0;
    for (; text[i] != 0 && i + 1 < capacity; ++i) {
        out[i] = text[i] < 0x80 ? static_cast<char>(text[i]) : '?';
    }
    out[i] = '\0';
}

double StampToMs(int64_t value) { return static_cast<double>(value) / FRACTION_PER_MS; }

// A host-order stamp as "YYYY-MM-DD hh:mm:ss.mmm" UTC (days to civil date after H. Hinnant).
void FormatUtc(NtpTimestamp stamp, char* out, size_t capacity) {
    const int64_t unixSeconds = static_cast<int64_t>(stamp >> 32) - static_cast<int64_t>(ntpToUnixSeconds);
    const uint32_t ms = static_cast<uint32_t>(((stamp & 0xFFFFFFFFULL) * MS_PER_SECOND) >> 32);
    int64_t days = unixSeconds / SECONDS_PER_DAY;
    int64_t secondOfDay = unixSeconds % SECONDS_PER_DAY;
    if (secondOfDay < 0) {
        secondOfDay += SECONDS_PER_DAY;
        days -= 1;
    }
    const int64_t z = days + 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const int64_t dayOfEra = z - era * 146097;
    const int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const int64_t shiftedMonth = (5 * dayOfYear + 2) / 153;
    const int64_t day = dayOfYear - (153 * shiftedMonth + 2) / 5 + 1;
    const int64_t month = shiftedMonth < 10 ? shiftedMonth + 3 : shiftedMonth - 9;
    const int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    std::snprintf(out, capacity, "%04lld-%02lld-%02lld %02lld:%02lld:%02lld.%03u", static_cast<long long>(year),
                  static_cast<long long>(month), static_cast<long long>(day),
                  static_cast<long long>(secondOfDay / 3600), static_cast<long long>(secondOfDay / 60 % 60),
                  static_cast<long long>(secondOfDay % 60), ms);
}

SntpResult QueryOnce(long number, const QueryOptions& options) {
    NtpTimestamp serverTime = 0;
    NtpTimestamp delay = 0;
    uint32_t stratum = 0;
    const SntpResult result =
        SntpExchange(options.server, static_cast<int32_t>(options.timeoutMs), &serverTime, &delay, &stratum);
    // The estimate is the server's time at the moment the answer arrived; read ours right away.
    uint8_t localStamp[8];
    NtpNow(localStamp);
    char text[TEXT_LIMIT];
    Narrow(SntpResultText(result), text, sizeof text);
    if (result != SNTP_OK) {
        std::printf("%ld  %d %s\n", number, result, text);
        std::fflush(stdout);
        return result;
    }
    char when[64];
    FormatUtc(serverTime, when, sizeof when);
    const int64_t offset = static_cast<int64_t>(LoadBigEndian64(localStamp) - serverTime);
    std::printf("%ld  %d %s  server %s UTC  offset %+.3f ms  delay %.3f ms  stratum %u\n", number, result, text, when,
                StampToMs(offset), StampToMs(static_cast<int64_t>(delay)), stratum);
    std::fflush(stdout);
    return result;
}
}  // namespace

int main(int argc, char** argv) {
    QueryOptions options;
    if (!ParseOptions(argc, argv, &options)) {
        return Usage();
    }
    NtpInitEpoch();
    stopRequested = 0;
    // Held for the whole run: without it every exchange, destroying the last socket, would wait
    // for the socket library's background thread to stop before the clock could be read.
    NetSocket holder;
    const bool holding = CreateNetSocket(&holder, NET_SOCKET_DATAGRAM) == 0;

    int status = 0;
    for (long number = 1; number <= options.count; ++number) {
        const SntpResult result = QueryOnce(number, options);
        if (result != SNTP_OK) {
            status = result;
        }
        if (number < options.count) {
            SleepFor(static_cast<uint32_t>(options.intervalS) * MS_PER_SECOND);
        }
    }
    if (holding) {
        DestroyNetSocket(&holder);
    }
    return status;
}
