// The trouble queue: delivery order, bounded texts, the drain without records or without a sink,
// and producers on other threads pushing while the sink runs.
#include "trouble/trouble_queue.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace {
struct Report {
    std::u16string source;
    uint32_t kind;
    uint32_t code;
    uint32_t state;
    std::u16string text;
};

// Written by the sink, which runs on the draining thread only.
std::vector<Report> reports;
std::atomic<uint32_t> sinkDelayLoops{0};

void RecordReport(const char16_t* source, uint32_t kind, uint32_t code, uint32_t state, const char16_t* text) {
    reports.push_back({source, kind, code, state, text});
    // A slow sink holds troubleLock longer, so producers queue up behind it.
    for (uint32_t i = 0; i < sinkDelayLoops.load(); ++i) {
        std::this_thread::yield();
    }
}

int32_t Queue(const char16_t* text, uint32_t code, uint32_t state) {
    TroubleRecord* record = NewTroubleRecord(u"SNTP", text, code, state);
    if (record == nullptr) {
        return 1;
    }
    const int32_t status = QueueTrouble(record);
    if (status != 0) {
        FreeTroubleRecord(record);
    }
    return status;
}

class TroubleQueueTest : public testing::Test {
protected:
    void SetUp() override {
        CreateTroubleQueue();
        SetReportCallback(nullptr);
        DrainTroubles();  // whatever an earlier test left is discarded
        reports.clear();
        sinkDelayLoops = 0;
        SetReportCallback(RecordReport);
    }
    void TearDown() override {
        SetReportCallback(nullptr);
        DrainTroubles();
    }
};
}  // namespace

TEST_F(TroubleQueueTest, DeliversEveryRecordInQueueOrderAsATroubleReport) {
    ASSERT_EQ(Queue(u"A", 7, TROUBLE_SET), 0);
    ASSERT_EQ(Queue(u"B", 8, TROUBLE_CLEARED), 0);
    ASSERT_EQ(Queue(u"C", 9, TROUBLE_SET), 0);
    EXPECT_TRUE(reports.empty());  // nothing reaches the sink before the drain

    DrainTroubles();
    ASSERT_EQ(reports.size(), 3u);
    const uint32_t states[] = {TROUBLE_SET, TROUBLE_CLEARED, TROUBLE_SET};
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(reports[i].text, std::u16string(1, static_cast<char16_t>(u'A' + i)));
        EXPECT_EQ(reports[i].source, u"SNTP");
        EXPECT_EQ(reports[i].kind, REPORT_KIND_TROUBLE);
        EXPECT_EQ(reports[i].code, 7 + i);
        EXPECT_EQ(reports[i].state, states[i]);
    }

    // The queue is empty now: a drain calls nothing.
    DrainTroubles();
    EXPECT_EQ(reports.size(), 3u);
}

TEST_F(TroubleQueueTest, LongSourceAndTextArriveCutTo255Units) {
    std::u16string source(300, u's');
    std::u16string text(300, u't');
    for (size_t i = 0; i < text.size(); ++i) {
        text[i] = static_cast<char16_t>(u'a' + i % 26);
    }
    TroubleRecord* record = NewTroubleRecord(source.c_str(), text.c_str(), 7, TROUBLE_SET);
    ASSERT_NE(record, nullptr);
    ASSERT_EQ(QueueTrouble(record), 0);
    DrainTroubles();
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_EQ(reports[0].source, source.substr(0, 255));
    EXPECT_EQ(reports[0].text, text.substr(0, 255));
}

TEST_F(TroubleQueueTest, RecordsDrainedWithoutASinkAreDiscarded) {
    SetReportCallback(nullptr);
    ASSERT_EQ(Queue(u"lost", 7, TROUBLE_SET), 0);
    DrainTroubles();  // frees the record (the leak checker of the native build watches)
    SetReportCallback(RecordReport);
    DrainTroubles();
    EXPECT_TRUE(reports.empty());
    EXPECT_EQ(QueueTrouble(nullptr), 1);
}

TEST_F(TroubleQueueTest, ProducersPushingWhileTheSinkRunsLoseAndDuplicateNothing) {
    const uint32_t PRODUCERS = 4;
    const uint32_t RECORDS_EACH = 400;
    const uint32_t TOTAL = PRODUCERS * RECORDS_EACH;
    const uint32_t MAX_DRAIN_PASSES = 1000000;
    sinkDelayLoops = 20;

    std::atomic<uint32_t> failures{0};
    std::vector<std::thread> producers;
    for (uint32_t producer = 0; producer < PRODUCERS; ++producer) {
        producers.emplace_back([producer, &failures] {
            for (uint32_t sequence = 0; sequence < RECORDS_EACH; ++sequence) {
                if (Queue(u"load", producer * 100000 + sequence, TROUBLE_SET) != 0) {
                    ++failures;
                }
                if (sequence % 16 == 0) {
                    std::this_thread::yield();
                }
            }
        });
    }
    for (uint32_t pass = 0; pass < MAX_DRAIN_PASSES && reports.size() < TOTAL; ++pass) {
        DrainTroubles();
        std::this_thread::yield();
    }
    for (std::thread& thread : producers) {
        thread.join();
    }
    DrainTroubles();

    EXPECT_EQ(failures.load(), 0u);
    ASSERT_EQ(reports.size(), TOTAL);
    // Each producer's records arrive exactly once and in the order it queued them.
    std::vector<uint32_t> next(PRODUCERS, 0);
    for (const Report& report : reports) {
        const uint32_t producer = report.code / 100000;
        ASSERT_LT(producer, PRODUCERS);
        EXPECT_EQ(report.code % 100000, next[producer]);
        next[producer] = report.code % 100000 + 1;
    }
    for (uint32_t producer = 0; producer < PRODUCERS; ++producer) {
        EXPECT_EQ(next[producer], RECORDS_EACH);
    }
}
