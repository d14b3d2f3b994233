// SntpQuery's pure parts: which command lines it accepts, the run's statistics and the
// monitoring verdict with its status line.
#include "tools/sntp_query_report.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {
int32_t Parse(std::vector<const char*> words, QueryOptions* options) {
    words.insert(words.begin(), "SntpQuery");
    return ParseQueryOptions(static_cast<int>(words.size()), const_cast<char**>(words.data()), options);
}

QueryOptions Thresholds(double warnMs, double critMs) { return {"127.0.0.5", 1, 1, QUERY_DEFAULT_TIMEOUT_MS, warnMs, critMs}; }

QuerySummary Answered(long answered, long asked, double offsetMs, double delayMs) {
    return {asked, answered, offsetMs, offsetMs, offsetMs, delayMs, delayMs, delayMs};
}

std::vector<double> Figures(const QuerySummary& s) {
    return {double(s.asked), double(s.answered), s.offsetMinMs, s.offsetMedianMs, s.offsetMaxMs, s.delayMinMs,
            s.delayMedianMs, s.delayMaxMs};
}
}  // namespace

TEST(SntpQueryOptions, AcceptsLongAndShortFormsAndDefaults) {
    const struct {
        std::vector<const char*> words; long count, intervalS, timeoutMs; double warnMs, critMs;
    } rows[] = {
        {{"ntp1"}, 1, 1, 5000, -1, -1},
        {{"--count", "5", "--interval", "0", "--timeout", "900", "ntp1"}, 5, 0, 900, -1, -1},
        {{"ntp1", "-n", "100000", "-i", "86400", "-t", "0"}, 100000, 86400, 0, -1, -1},
        {{"ntp1", "--warn-ms", "0.5", "--crit-ms", "2"}, 1, 1, 5000, 0.5, 2},
        {{"--warn-ms", "3", "--crit-ms", "3", "ntp1"}, 1, 1, 5000, 3, 3},
        {{"ntp1", "--crit-ms", "10"}, 1, 1, 5000, -1, 10},
    };
    for (const auto& row : rows) {
        QueryOptions options;
        ASSERT_EQ(0, Parse(row.words, &options)) << row.words.size();
        EXPECT_STREQ("ntp1", options.server);
        EXPECT_EQ(std::make_tuple(row.count, row.intervalS, row.timeoutMs, row.warnMs, row.critMs),
                  std::make_tuple(options.count, options.intervalS, options.timeoutMs, options.warnMs, options.critMs));
    }
}

TEST(SntpQueryOptions, RefusesWhatItCannotRead) {
    const std::vector<std::vector<const char*>> lines = {
        {}, {"--count", "3"}, {"ntp1", "ntp2"}, {"ntp1", "--count"}, {"ntp1", "--count", "0"},
        {"ntp1", "-n", "100001"}, {"ntp1", "-n", "5x"}, {"ntp1", "-i", "-1"}, {"ntp1", "-i", "86401"},
        {"ntp1", "-t", "600001"}, {"ntp1", "--warn-ms", "-1"}, {"ntp1", "--warn-ms", "1e3"},
        {"ntp1", "--warn-ms", "nan"}, {"ntp1", "--warn-ms", "1.2.3"}, {"ntp1", "--crit-ms", ""},
        {"ntp1", "--crit-ms", "86400001"}, {"ntp1", "--warn-ms", "5", "--crit-ms", "4"}, {"ntp1", "--verbose"},
    };
    for (const auto& words : lines) {
        QueryOptions options;
        EXPECT_EQ(1, Parse(words, &options)) << ::testing::PrintToString(words);
    }
    EXPECT_EQ(1, ParseQueryOptions(1, nullptr, nullptr));
}

TEST(SntpQuerySummary, TakesMinMedianAndMaxOfTheAnswersOnly) {
    const QuerySample odd[] = {{1, 3.0, 0.5}, {0, 99.0, 99.0}, {1, -1.0, 2.0}, {1, 0.25, 1.0}};
    const QuerySample even[] = {{1, 4.0, 1.0}, {1, 1.0, 3.0}, {1, 2.0, 0.0}, {1, 10.0, 2.0}};
    const QuerySample silent[] = {{0, 5.0, 5.0}, {0, 6.0, 6.0}};
    QuerySummary summary;
    ASSERT_EQ(0, SummariseQuery(odd, 4, &summary));
    EXPECT_EQ((std::vector<double>{4, 3, -1.0, 0.25, 3.0, 0.5, 1.0, 2.0}), Figures(summary));
    ASSERT_EQ(0, SummariseQuery(even, 4, &summary));
    EXPECT_EQ((std::vector<double>{4, 4, 1.0, 3.0, 10.0, 0.0, 1.5, 3.0}), Figures(summary));
    ASSERT_EQ(0, SummariseQuery(silent, 2, &summary));
    EXPECT_EQ(std::make_pair(2L, 0L), std::make_pair(summary.asked, summary.answered));
    EXPECT_EQ(std::make_tuple(1, 1, 1), std::make_tuple(SummariseQuery(nullptr, 1, &summary), SummariseQuery(odd, -1, &summary),
                                                        SummariseQuery(odd, QUERY_MAX_COUNT + 1, &summary)));
}

// One row per run: the verdict on its median offset, checked through the status line it gives
// (whole, or up to " -" where the verdict alone is the point).
TEST(SntpQueryStatus, VerdictAndStatusLine) {
    const struct {
        long answered, asked; double offsetMs, delayMs, warnMs, critMs; const char* line;
    } rows[] = {
        {0, 4, 0.0, 0.0, 100, 500,  // nothing answered: no verdict on the offset
         "SNTP UNKNOWN - no answer from 127.0.0.5, 0 of 4 answered: The time server did not respond."},
        {3, 3, 0.412, 0.25, 100, 500,
         "SNTP OK - offset 0.412 ms, delay 0.250 ms, 3 of 3 answered | offset=0.000412s;0.1;0.5 delay=0.000250s"},
        {1, 2, -150.0, 1.0, 100, 500,  // the size of the offset counts, not its sign
         "SNTP WARNING - offset -150.000 ms, delay 1.000 ms, 1 of 2 answered | offset=-0.150000s;0.1;0.5 "
         "delay=0.001000s"},
        {1, 1, 2000.0, 0.0, -1, -1,  // no thresholds: an answer is enough
         "SNTP OK - offset 2000.000 ms, delay 0.000 ms, 1 of 1 answered | offset=2.000000s;; delay=0.000000s"},
        {1, 3, 0.9, 0, 1, 2, "SNTP OK -"},        {1, 3, 1.0, 0, 1, 2, "SNTP OK -"},  // at the threshold: not beyond
        {1, 3, 1.5, 0, 1, 2, "SNTP WARNING -"},   {1, 3, 2.5, 0, 1, 2, "SNTP CRITICAL -"},
        {1, 3, -2.5, 0, 1, 2, "SNTP CRITICAL -"}, {1, 3, 5.0, 0, -1, 4, "SNTP CRITICAL -"},
        {1, 3, 5.0, 0, 4, -1, "SNTP WARNING -"},  {1, 3, 0.1, 0, 0, 0, "SNTP CRITICAL -"},
    };
    char line[512];
    for (const auto& row : rows) {
        const QuerySummary summary = Answered(row.answered, row.asked, row.offsetMs, row.delayMs);
        const QueryOptions options = Thresholds(row.warnMs, row.critMs);
        ASSERT_EQ(0, FormatQueryStatusLine(summary, options, DecideQueryStatus(summary, options),
                                           "The time server did not respond.", line, sizeof line));
        const size_t length = std::strlen(row.line);
        EXPECT_EQ(row.line, std::string(line).substr(0, row.line[length - 1] == '-' ? length : std::string::npos));
    }
    ASSERT_EQ(0, FormatQueryStatusLine(Answered(1, 1, 0, 0), Thresholds(1, 2), MONITOR_OK, nullptr, line, 8));
    EXPECT_STREQ("SNTP OK", line);
    EXPECT_EQ(1, FormatQueryStatusLine(Answered(1, 1, 0, 0), Thresholds(1, 2), MONITOR_OK, nullptr, nullptr, 8));
}

// The server's time as printed: the date of the stamp's own era, whatever this machine's clock says.
TEST(SntpQueryServerTime, PrintsTheDateOfTheStampsEra) {
    const struct {
        NtpTimestamp stamp;
        const char* printed;
    } rows[] = {
        {0xEEB0A38080000000ULL, "2026-11-25 00:00:00.500"},
        {0xFFFFFFFFFFFFFFFFULL, "2036-02-07 06:28:15.999"},
        {0x0000000000000000ULL, "2036-02-07 06:28:16.000"},
        {0x0000002C00000000ULL, "2036-02-07 06:29:00.000"},
        {0x7FFFFFFF00000000ULL, "2104-02-26 09:42:23.000"},
    };
    for (const auto& row : rows) {
        char printed[64];
        FormatServerTime(row.stamp, printed, sizeof printed);
        EXPECT_STREQ(row.printed, printed) << std::hex << row.stamp;
    }
}
