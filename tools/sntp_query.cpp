// SntpQuery: the field tool for "is that time server usable from here?", and a monitoring check.
// It runs the service's own SNTP exchange against a named server, once or COUNT times at an
// interval, and prints per exchange the number, the result code and its trouble text, the
// server's time (UTC, ms), this machine's clock offset from it, the round-trip delay and the
// stratum; then a summary of the run and one status line in the monitoring-plugin format:
//
//   SntpQuery 10.1.2.3 [--count N] [--interval S] [--timeout MS] [--warn-ms X] [--crit-ms Y]
//   1  0 Ok  server 2026-11-22 06:40:01.123 UTC  offset -0.412 ms  delay 0.305 ms  stratum 1
//   summary: 1 of 1 answered  offset min -0.412 median -0.412 max -0.412 ms  delay min ...
//   SNTP OK - offset -0.412 ms, delay 0.305 ms, 1 of 1 answered | offset=-0.000412s;; delay=0.000305s
//
// The round trip is timed on the millisecond tick count, so a loopback delay reads 0.000 ms.
// It only reads the clock, never sets it. Exit status: 0 ok, 1 warning, 2 critical, 3 unknown
// (no answer, or a command line it cannot read).
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "runtime/runtime.h"
#include "sntp/ntp_time.h"
#include "sntp/sntp_exchange.h"
#include "sntp/sntp_troubles.h"
#include "tools/sntp_query_report.h"

namespace {
const double FRACTION_PER_MS = 4294967.296;  // 2^32 / 1000
const size_t TEXT_LIMIT = 256;
const size_t LINE_LIMIT = 512;

void PrintUsage(FILE* stream) {
    std::fprintf(stream,
                 "usage: SntpQuery SERVER [--count N] [--interval S] [--timeout MS] [--warn-ms X] [--crit-ms Y]\n"
                 "  SERVER          dotted IPv4 address or host name of an SNTP version-3 server (UDP 123)\n"
                 "  --count, -n     exchanges to run (1..%ld, default 1)\n"
                 "  --interval, -i  seconds between exchanges (0..%ld, default 1)\n"
                 "  --timeout, -t   time-out of one exchange in ms (0..%ld, default %ld)\n"
                 "  --warn-ms X     warning when the median |offset| of the answers exceeds X ms\n"
                 "  --crit-ms Y     critical when it exceeds Y ms (Y not below X)\n"
                 "Prints one line per exchange (number, result, server time UTC, offset of this clock\n"
                 "from the server, round-trip delay, stratum), then a summary (answered of asked; min,\n"
                 "median and max of offset and delay), then a monitoring status line such as\n"
                 "  SNTP OK - offset 0.412 ms, delay 0.000 ms, 3 of 3 answered | offset=0.000412s;0.1;0.5 "
                 "delay=0.000000s\n"
                 "Exit status: 0 ok, 1 warning, 2 critical, 3 unknown (no answer, or a bad command line).\n"
                 "Reads the clock only; it never sets it.\n",
                 QUERY_MAX_COUNT, QUERY_MAX_INTERVAL_S, QUERY_MAX_TIMEOUT_MS, QUERY_DEFAULT_TIMEOUT_MS);
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

SntpResult QueryOnce(long number, const QueryOptions& options, QuerySample* sample) {
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
    *sample = QuerySample{0, 0.0, 0.0};
    if (result != SNTP_OK) {
        std::printf("%ld  %d %s\n", number, result, text);
        std::fflush(stdout);
        return result;
    }
    char when[64];
    FormatServerTime(serverTime, when, sizeof when);
    const int64_t offset = static_cast<int64_t>(LoadBigEndian64(localStamp) - serverTime);
    *sample = QuerySample{1, StampToMs(offset), StampToMs(static_cast<int64_t>(delay))};
    std::printf("%ld  %d %s  server %s UTC  offset %+.3f ms  delay %.3f ms  stratum %u\n", number, result, text, when,
                sample->offsetMs, sample->delayMs, stratum);
    std::fflush(stdout);
    return result;
}

void PrintSummary(const QuerySummary& summary) {
    if (summary.answered <= 0) {
        std::printf("summary: 0 of %ld answered\n", summary.asked);
        return;
    }
    std::printf("summary: %ld of %ld answered  offset min %+.3f median %+.3f max %+.3f ms"
                "  delay min %.3f median %.3f max %.3f ms\n",
                summary.answered, summary.asked, summary.offsetMinMs, summary.offsetMedianMs, summary.offsetMaxMs,
                summary.delayMinMs, summary.delayMedianMs, summary.delayMaxMs);
}
}  // namespace

int main(int argc, char** argv) {
    QueryOptions options;
    if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
        PrintUsage(stdout);
        return MONITOR_OK;
    }
    if (ParseQueryOptions(argc, argv, &options) != 0) {
        PrintUsage(stderr);
        return MONITOR_UNKNOWN;
    }
    NtpInitEpoch();
    stopRequested = 0;

    std::vector<QuerySample> samples(static_cast<size_t>(options.count));
    SntpResult lastFailure = SNTP_OK;
    for (long number = 1; number <= options.count; ++number) {
        const SntpResult result = QueryOnce(number, options, &samples[static_cast<size_t>(number - 1)]);
        if (result != SNTP_OK) {
            lastFailure = result;
        }
        if (number < options.count) {
            SleepFor(static_cast<uint32_t>(options.intervalS) * MS_PER_SECOND);
        }
    }

    QuerySummary summary;
    SummariseQuery(samples.data(), options.count, &summary);
    PrintSummary(summary);
    const int32_t status = DecideQueryStatus(summary, options);
    char failure[TEXT_LIMIT];
    Narrow(SntpResultText(lastFailure), failure, sizeof failure);
    char line[LINE_LIMIT];
    FormatQueryStatusLine(summary, options, status, failure, line, sizeof line);
    std::printf("%s\n", line);
    return status;
}
