// The trouble queue: delivery order, bounded texts, the drain without records or without a sink,
// and producers on other threads pushing while the sink runs.
#include "trouble/trouble_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {
using Report = std::tuple<std::u16string, uint32_t, uint32_t, uint32_t, std::u16string>;
std::vector<Report> reports;  // written by the sink, which runs on the draining thread only

void RecordReport(const char16_t* source, uint32_t kind, uint32_t code, uint32_t state, const char16_t* text) {
    reports.emplace_back(source, kind, code, state, text);
    std::this_thread::yield();  // a slow sink holds troubleLock, so producers queue up behind it
}

// A record that is refused (and so leaks) fails the test anyway.
int32_t Queue(const std::u16string& source, const std::u16string& text, uint32_t code, uint32_t state) {
    return QueueTrouble(NewTroubleRecord(source.c_str(), text.c_str(), code, state));
}
}  // namespace

TEST(TroubleQueue, DeliversInQueueOrderWithTextsCutTo255UnitsAndDiscardsWithoutASink) {
    CreateTroubleQueue();
    SetReportCallback(RecordReport);
    const std::u16string longSource(300, u's'), longText(300, u't');
    ASSERT_EQ(Queue(u"SNTP", u"A", 7, TROUBLE_SET), 0);
    ASSERT_EQ(Queue(u"SNTP", u"B", 8, TROUBLE_CLEARED), 0);
    ASSERT_EQ(Queue(longSource, longText, 9, TROUBLE_SET), 0);
    EXPECT_TRUE(reports.empty());  // nothing reaches the sink before the drain
    DrainTroubles();
    DrainTroubles();  // the queue is empty now: the sink is not called again
    EXPECT_EQ(reports, (std::vector<Report>{{u"SNTP", REPORT_KIND_TROUBLE, 7, TROUBLE_SET, u"A"},
                                            {u"SNTP", REPORT_KIND_TROUBLE, 8, TROUBLE_CLEARED, u"B"},
                                            {longSource.substr(0, 255), REPORT_KIND_TROUBLE, 9, TROUBLE_SET,
                                             longText.substr(0, 255)}}));
    EXPECT_EQ(TroubleSinkInstalled(), 1);

    // Without a sink the drain frees the record (the leak checker of the native build watches).
    SetReportCallback(nullptr);
    EXPECT_EQ(TroubleSinkInstalled(), 0);
    ASSERT_EQ(Queue(u"SNTP", u"lost", 7, TROUBLE_SET), 0);
    DrainTroubles();
    SetReportCallback(RecordReport);
    DrainTroubles();
    EXPECT_EQ(reports.size(), 3u);
    EXPECT_EQ(QueueTrouble(nullptr), 1);
}

TEST(TroubleQueue, ProducersPushingWhileTheSinkRunsLoseAndDuplicateNothing) {
    const uint32_t PRODUCERS = 4, RECORDS_EACH = 400;
    CreateTroubleQueue();
    SetReportCallback(RecordReport);
    reports.clear();
    std::atomic<uint32_t> failures{0};
    std::vector<std::thread> producers;
    for (uint32_t producer = 0; producer < PRODUCERS; ++producer) {
        producers.emplace_back([producer, &failures] {
            for (uint32_t sequence = 0; sequence < RECORDS_EACH; ++sequence) {
                failures += Queue(u"SNTP", u"load", producer * 100000 + sequence, TROUBLE_SET) != 0 ? 1 : 0;
            }
        });
    }
    for (uint32_t pass = 0; pass < 1000000 && reports.size() < PRODUCERS * RECORDS_EACH; ++pass) {
        DrainTroubles();
        std::this_thread::yield();
    }
    for (std::thread& thread : producers) {
        thread.join();
    }
    DrainTroubles();
    EXPECT_EQ(failures.load(), 0u);
    ASSERT_EQ(reports.size(), PRODUCERS * RECORDS_EACH);
    // Each producer's records arrive exactly once and in the order it queued them.
    std::vector<uint32_t> next(PRODUCERS, 0);
    for (const Report& report : reports) {
        const uint32_t code = std::get<2>(report);
        ASSERT_LT(code / 100000, PRODUCERS);
        EXPECT_EQ(code % 100000, next[code / 100000]++);
    }
}
