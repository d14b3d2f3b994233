// SntpQuery's command line, the server's time as printed, run summary and monitoring verdict (see
// sntp_query_report.h).
#include "tools/sntp_query_report.h"

#include "runtime/runtime.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "tools/tool_options.h"

namespace {
const char* const STATUS_WORDS[] = {"OK", "WARNING", "CRITICAL", "UNKNOWN"};
const int64_t SECONDS_PER_DAY = 86400;
const int64_t SECONDS_PER_HOUR = 3600;
const int64_t SECONDS_PER_MINUTE = 60;

bool IsOption(const char* argument, const char* longForm, const char* shortForm) {
    return std::strcmp(argument, longForm) == 0 || std::strcmp(argument, shortForm) == 0;
}

double Median(std::vector<double>* values) {
    std::sort(values->begin(), values->end());
    const size_t middle = values->size() / 2;
    if (values->size() % 2 == 1) {
        return (*values)[middle];
    }
    return ((*values)[middle - 1] + (*values)[middle]) / 2.0;
}

// A threshold in the performance data: seconds, or nothing when not given.
void FormatThreshold(double ms, char* out, size_t capacity) {
    if (ms < 0) {
        out[0] = '\0';
        return;
    }
    std::snprintf(out, capacity, "%g", ms / static_cast<double>(MS_PER_SECOND));
}
}  // namespace

// Days since 1970 to the civil date: H. Hinnant's civil_from_days.
void FormatServerTime(NtpTimestamp stamp, char* out, size_t capacity) {
    const int64_t unixSeconds = NtpEraSeconds(stamp) - static_cast<int64_t>(NTP_TO_UNIX_SECONDS);
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
                  static_cast<long long>(secondOfDay / SECONDS_PER_HOUR),
                  static_cast<long long>(secondOfDay / SECONDS_PER_MINUTE % SECONDS_PER_MINUTE),
                  static_cast<long long>(secondOfDay % SECONDS_PER_MINUTE), ms);
}

int32_t ParseQueryOptions(int argc, char** argv, QueryOptions* options) {
    if (argv == nullptr || options == nullptr) {
        return 1;
    }
    *options = QueryOptions{nullptr, 1, 1, QUERY_DEFAULT_TIMEOUT_MS, -1.0, -1.0};
    for (int i = 1; i < argc; ++i) {
        const char* argument = argv[i];
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        bool good = true;
        if (IsOption(argument, "--count", "-n")) {
            good = ParseNumber(value, 1, QUERY_MAX_COUNT, &options->count);
        } else if (IsOption(argument, "--interval", "-i")) {
            good = ParseNumber(value, 0, QUERY_MAX_INTERVAL_S, &options->intervalS);
        } else if (IsOption(argument, "--timeout", "-t")) {
            good = ParseNumber(value, 0, QUERY_MAX_TIMEOUT_MS, &options->timeoutMs);
        } else if (std::strcmp(argument, "--warn-ms") == 0) {
            good = ParseDecimal(value, 0.0, QUERY_MAX_THRESHOLD_MS, &options->warnMs);
        } else if (std::strcmp(argument, "--crit-ms") == 0) {
            good = ParseDecimal(value, 0.0, QUERY_MAX_THRESHOLD_MS, &options->critMs);
        } else if (argument[0] == '-' || options->server != nullptr) {
            return 1;
        } else {
            options->server = argument;
            continue;
        }
        if (!good) {
            return 1;
        }
        ++i;  // the option's value
    }
    // A warning threshold beyond the critical one could never be reported.
    if (options->warnMs >= 0 && options->critMs >= 0 && options->warnMs > options->critMs) {
        return 1;
    }
    return options->server != nullptr ? 0 : 1;
}

int32_t SummariseQuery(const QuerySample* samples, long count, QuerySummary* summary) {
    if (samples == nullptr || summary == nullptr || count < 0 || count > QUERY_MAX_COUNT) {
        return 1;
    }
    std::vector<double> offsets;
    std::vector<double> delays;
    for (long i = 0; i < count; ++i) {
        if (samples[i].answered != 0) {
            offsets.push_back(samples[i].offsetMs);
            delays.push_back(samples[i].delayMs);
        }
    }
    *summary = QuerySummary{count, static_cast<long>(offsets.size()), 0, 0, 0, 0, 0, 0};
    if (offsets.empty()) {
        return 0;
    }
    summary->offsetMedianMs = Median(&offsets);
    summary->offsetMinMs = offsets.front();
    summary->offsetMaxMs = offsets.back();
    summary->delayMedianMs = Median(&delays);
    summary->delayMinMs = delays.front();
    summary->delayMaxMs = delays.back();
    return 0;
}

int32_t DecideQueryStatus(const QuerySummary& summary, const QueryOptions& options) {
    if (summary.answered <= 0) {
        return MONITOR_UNKNOWN;
    }
    const double offset = std::fabs(summary.offsetMedianMs);
    if (options.critMs >= 0 && offset > options.critMs) {
        return MONITOR_CRITICAL;
    }
    if (options.warnMs >= 0 && offset > options.warnMs) {
        return MONITOR_WARNING;
    }
    return MONITOR_OK;
}

int32_t FormatQueryStatusLine(const QuerySummary& summary, const QueryOptions& options, int32_t status,
                              const char* failureText, char* out, size_t capacity) {
    if (out == nullptr || capacity == 0) {
        return 1;
    }
    const char* word = STATUS_WORDS[status >= MONITOR_OK && status <= MONITOR_UNKNOWN ? status : MONITOR_UNKNOWN];
    const char* server = options.server != nullptr ? options.server : "?";
    if (summary.answered <= 0) {
        std::snprintf(out, capacity, "SNTP %s - no answer from %s, 0 of %ld answered: %s", word, server,
                      summary.asked, failureText != nullptr ? failureText : "no exchange made");
        return 0;
    }
    char warn[32];
    char crit[32];
    FormatThreshold(options.warnMs, warn, sizeof warn);
    FormatThreshold(options.critMs, crit, sizeof crit);
    std::snprintf(out, capacity,
                  "SNTP %s - offset %.3f ms, delay %.3f ms, %ld of %ld answered | offset=%.6fs;%s;%s delay=%.6fs",
                  word, summary.offsetMedianMs, summary.delayMedianMs, summary.answered, summary.asked,
                  summary.offsetMedianMs / static_cast<double>(MS_PER_SECOND), warn, crit, summary.delayMedianMs / static_cast<double>(MS_PER_SECOND));
    return 0;
}
