// SntpQuery's pure parts: its command line, the server's time as printed, the summary of a run of
// exchanges and the monitoring verdict (status, exit code and the one-line plugin summary). No
// clock, socket or output here, so the unit tests call them directly.
#pragma once

#include <cstddef>
#include <cstdint>

#include "sntp/ntp_time.h"

const long QUERY_MAX_COUNT = 100000;
const long QUERY_MAX_INTERVAL_S = 86400;
const long QUERY_MAX_TIMEOUT_MS = 600000;
const long QUERY_DEFAULT_TIMEOUT_MS = 5000;  // the client's first attempt
const double QUERY_MAX_THRESHOLD_MS = 86400000.0;

// The exit codes that monitoring systems read.
const int32_t MONITOR_OK = 0;
const int32_t MONITOR_WARNING = 1;
const int32_t MONITOR_CRITICAL = 2;
const int32_t MONITOR_UNKNOWN = 3;  // no answer, or a command line that could not be read

struct QueryOptions {
    const char* server;
    long count;
    long intervalS;
    long timeoutMs;
    double warnMs;  // threshold on |median offset|; below 0 when not given
    double critMs;
};

// One exchange as the summary sees it: answered or not, and its figures in milliseconds.
struct QuerySample {
    int32_t answered;
    double offsetMs;
    double delayMs;
};

struct QuerySummary {
    long asked;
    long answered;
    double offsetMinMs, offsetMedianMs, offsetMaxMs;  // meaningful only when answered > 0
    double delayMinMs, delayMedianMs, delayMaxMs;
};

// Fills options from argv (argv[0] is the program). 0 when the line is usable, 1 when not:
// an unknown option, a missing or malformed value, no server or two, a warning above the
// critical threshold. Long and short forms: --count/-n, --interval/-i, --timeout/-t.
int32_t ParseQueryOptions(int argc, char** argv, QueryOptions* options);

// A host-order stamp as "YYYY-MM-DD hh:mm:ss.mmm" (UTC), its date by the stamp's era.
void FormatServerTime(NtpTimestamp stamp, char* out, size_t capacity);

// Min, median (the mean of the middle two for an even number) and max of the answered samples.
// 0, or 1 for a null argument or more than QUERY_MAX_COUNT samples.
int32_t SummariseQuery(const QuerySample* samples, long count, QuerySummary* summary);

// UNKNOWN when nothing was answered; else CRITICAL when |median offset| exceeds the critical
// threshold, WARNING when it exceeds the warning one, OK otherwise.
int32_t DecideQueryStatus(const QuerySummary& summary, const QueryOptions& options);

// The status line of a monitoring plugin, with performance data in seconds after the bar:
//   SNTP OK - offset 0.412 ms, delay 0.000 ms, 3 of 3 answered | offset=0.000412s;0.1;0.5 delay=0.000000s
// failureText names why nothing was answered (used only then). 0, or 1 for a null argument.
int32_t FormatQueryStatusLine(const QuerySummary& summary, const QueryOptions& options, int32_t status,
                              const char* failureText, char* out, size_t capacity);
