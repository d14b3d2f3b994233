// SntpQuery's pure parts: its options, the run's statistics, the verdict and its status line.
#include "tools/sntp_query_report.h"

#include <gtest/gtest.h>

#include <cstring>
#include <iomanip>
#include <sstream>
#include <string>
#include <vector>

namespace {
// Field by field, so that a failure names the field; every digit, so that equal texts are equal values.
std::string Describe(const QueryOptions& o) {
    std::ostringstream out;
    out << std::setprecision(17) << "server " << o.server << ", count " << o.count << ", intervalS " << o.intervalS
        << ", timeoutMs " << o.timeoutMs << ", warnMs " << o.warnMs << ", critMs " << o.critMs;
    return out.str();
}

std::string Describe(const QuerySummary& s) {
    std::ostringstream out;
    out << std::setprecision(17) << "asked " << s.asked << ", answered " << s.answered << ", offset min "
        << s.offsetMinMs << " median " << s.offsetMedianMs << " max " << s.offsetMaxMs << ", delay min " << s.delayMinMs
        << " median " << s.delayMedianMs << " max " << s.delayMaxMs;
    return out.str();
}

struct Parsed {
    int32_t status;
    QueryOptions options;
};

Parsed Parse(std::vector<const char*> words) {
    words.insert(words.begin(), "SntpQuery");
    Parsed parsed{};
    parsed.status = ParseQueryOptions(static_cast<int>(words.size()), const_cast<char**>(words.data()), &parsed.options);
    return parsed;
}

QueryOptions Thresholds(double warnMs, double critMs) { return {"127.0.0.5", 1, 1, QUERY_DEFAULT_TIMEOUT_MS, warnMs, critMs}; }

QuerySummary Answered(long answered, long asked, double offsetMs, double delayMs) {
    return {asked, answered, offsetMs, offsetMs, offsetMs, delayMs, delayMs, delayMs};
}
}  // namespace

TEST(SntpQueryOptions, ReadsLongAndShortFormsWithDefaultsForTheRest) {
    const struct {
        std::vector<const char*> words;
        QueryOptions options;
    } rows[] = {
        {{"ntp1"}, {"ntp1", 1, 1, 5000, -1, -1}},
        {{"--count", "5", "--interval", "0", "--timeout", "900", "ntp1"}, {"ntp1", 5, 0, 900, -1, -1}},
        {{"ntp1", "-n", "100000", "-i", "86400", "-t", "0"}, {"ntp1", 100000, 86400, 0, -1, -1}},
        {{"ntp1", "--warn-ms", "0.5", "--crit-ms", "2"}, {"ntp1", 1, 1, 5000, 0.5, 2}},
        {{"--warn-ms", "3", "--crit-ms", "3", "ntp1"}, {"ntp1", 1, 1, 5000, 3, 3}},
    };
    for (const auto& row : rows) {
        const Parsed parsed = Parse(row.words);
        EXPECT_EQ(parsed.status, 0) << testing::PrintToString(row.words);
        EXPECT_EQ(Describe(parsed.options), Describe(row.options)) << testing::PrintToString(row.words);
    }
}

TEST(SntpQueryOptions, RefusesWhatItCannotRead) {
    const std::vector<std::vector<const char*>> lines = {
        {}, {"--count", "3"}, {"ntp1", "ntp2"}, {"ntp1", "--count"}, {"ntp1", "--count", "0"},
        {"ntp1", "-n", "100001"}, {"ntp1", "-n", "5x"}, {"ntp1", "-i", "-1"}, {"ntp1", "--warn-ms", "-1"},
        {"ntp1", "--warn-ms", "nan"}, {"ntp1", "--warn-ms", "1.2.3"}, {"ntp1", "--crit-ms", ""},
        {"ntp1", "--crit-ms", "86400001"}, {"ntp1", "--warn-ms", "5", "--crit-ms", "4"}, {"ntp1", "--verbose"},
    };
    for (const auto& words : lines) {
        const Parsed parsed = Parse(words);
        EXPECT_EQ(parsed.status, 1) << testing::PrintToString(words);
    }
}

// Min, median and max of the answered samples alone; an even number's median is the mean of the middle two.
TEST(SntpQuerySummary, TakesMinMedianAndMaxOfTheAnswers) {
    const struct {
        const char* label;
        std::vector<QuerySample> samples;
        QuerySummary summary;
    } rows[] = {
        {"odd", {{1, 3.0, 0.5}, {0, 99.0, 99.0}, {1, -1.0, 2.0}, {1, 0.25, 1.0}}, {4, 3, -1.0, 0.25, 3.0, 0.5, 1.0, 2.0}},
        {"even", {{1, 4.0, 1.0}, {1, 1.0, 3.0}, {1, 2.0, 0.0}, {1, 10.0, 2.0}}, {4, 4, 1.0, 3.0, 10.0, 0.0, 1.5, 3.0}},
        {"none answered: what was asked, and zeros", {{0, 5.0, 5.0}, {0, 6.0, 6.0}}, {2, 0, 0, 0, 0, 0, 0, 0}},
    };
    for (const auto& row : rows) {
        QuerySummary summary{};
        const int32_t status = SummariseQuery(row.samples.data(), static_cast<long>(row.samples.size()), &summary);
        EXPECT_EQ(status, 0) << row.label;
        EXPECT_EQ(Describe(summary), Describe(row.summary)) << row.label;
    }
}

// One row per run: the verdict on its median offset, checked through the status line it gives
// (whole, or up to " -" where the verdict alone is the point).
TEST(SntpQueryStatus, LineGivesTheVerdictOnTheMedianOffset) {
    const struct {
        long answered, asked;
        double offsetMs, delayMs, warnMs, critMs;
        const char* line;
    } rows[] = {
        {3, 3, 0.412, 0.25, 100, 500,
         "SNTP OK - offset 0.412 ms, delay 0.250 ms, 3 of 3 answered | offset=0.000412s;0.1;0.5 delay=0.000250s"},
        {1, 2, -150.0, 1.0, 100, 500,  // the size of the offset counts, not its sign
         "SNTP WARNING - offset -150.000 ms, delay 1.000 ms, 1 of 2 answered | offset=-0.150000s;0.1;0.5 "
         "delay=0.001000s"},
        {1, 1, 2000.0, 0.0, -1, -1,  // no thresholds: an answer is enough
         "SNTP OK - offset 2000.000 ms, delay 0.000 ms, 1 of 1 answered | offset=2.000000s;; delay=0.000000s"},
        {1, 3, 1.0, 0, 1, 2, "SNTP OK -"},  // at the threshold: not beyond
        {1, 3, 2.5, 0, 1, 2, "SNTP CRITICAL -"},
        {1, 3, 5.0, 0, 4, -1, "SNTP WARNING -"},
        {1, 3, 0.1, 0, 0, 0, "SNTP CRITICAL -"},
        {0, 2, 0, 0, 1, 2, "SNTP UNKNOWN - no answer from 127.0.0.5, 0 of 2 answered: no exchange made"},
    };
    for (const auto& row : rows) {
        const QuerySummary summary = Answered(row.answered, row.asked, row.offsetMs, row.delayMs);
        const QueryOptions options = Thresholds(row.warnMs, row.critMs);
        char line[512] = "";
        const int32_t status =
            FormatQueryStatusLine(summary, options, DecideQueryStatus(summary, options), nullptr, line, sizeof line);
        const size_t length = std::strlen(row.line);
        EXPECT_EQ(status, 0) << row.line;
        EXPECT_EQ(row.line, std::string(line).substr(0, row.line[length - 1] == '-' ? length : std::string::npos));
    }
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
    };
    for (const auto& row : rows) {
        char printed[64];
        FormatServerTime(row.stamp, printed, sizeof printed);
        EXPECT_STREQ(row.printed, printed) << std::hex << row.stamp;
    }
}
