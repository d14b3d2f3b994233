// The trouble path: PtrList, the trouble queue and the 860-byte workstation report.
#include <gtest/gtest.h>

#include <cstring>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "trouble/ptr_list.h"
#include "trouble/trouble_queue.h"
#include "trouble/workstation_report.h"

namespace {
struct FourEntries : testing::Test {
    void SetUp() override {
        for (int32_t& entry : entries) PushPtrList(list, &entry);
    }
    void TearDown() override { DestroyPtrList(list); }
    int32_t entries[4] = {1, 2, 3, 4};
    PtrList* list = CreatePtrList(nullptr);  // cursors need no order
};

struct Report {
    std::u16string source;
    uint32_t kind;
    uint32_t code;
    uint32_t state;
    std::u16string text;
    bool operator==(const Report& other) const {
        return source == other.source && kind == other.kind && code == other.code && state == other.state &&
               text == other.text;
    }
};

void PrintTo(const Report& r, std::ostream* out) {
    *out << "{source " << testing::PrintToString(r.source) << ", kind " << r.kind << ", code " << r.code << ", state "
         << r.state << ", text " << testing::PrintToString(r.text) << "}";
}

std::vector<Report> reports;  // written by the sink, which runs on the draining thread only

void RecordReport(const char16_t* source, uint32_t kind, uint32_t code, uint32_t state, const char16_t* text) {
    reports.push_back(Report{source, kind, code, state, text});
    std::this_thread::yield();  // a slow sink holds troubleLock, so producers queue up behind it
}

// Nothing queued outlives it.
class RecordingSink {
public:
    RecordingSink() {
        CreateTroubleQueue();
        reports.clear();
        SetReportCallback(RecordReport);
    }
    ~RecordingSink() {
        SetReportCallback(nullptr);
        DrainTroubles();
        reports.clear();
    }
    RecordingSink(const RecordingSink&) = delete;
    RecordingSink& operator=(const RecordingSink&) = delete;
};
}  // namespace

// A cursor on a removed node moves to its successor, which is still to be returned: at the head
// (a popped) and in the middle (c removed).
TEST_F(FourEntries, CursorSkipsNoItemWhenItsNodeIsRemoved) {
    PtrListCursor cursor;
    OpenPtrListCursor(list, &cursor);
    PopFrontPtrList(list);
    void* const first = NextPtrListItem(&cursor);
    const int32_t removed = RemovePtrListItem(list, &entries[2]);
    void* const second = NextPtrListItem(&cursor);
    void* const end = NextPtrListItem(&cursor);
    ClosePtrListCursor(&cursor);
    EXPECT_EQ(first, &entries[1]);
    EXPECT_EQ(removed, 0);
    EXPECT_EQ(second, &entries[3]);
    EXPECT_EQ(end, nullptr);
}

// Ten cursors are registered; closing one moves the last into its slot, where it is still fixed up.
TEST_F(FourEntries, CursorMovedIntoAClosedSlotIsStillFixedUp) {
    PtrListCursor cursors[PTR_LIST_MAX_CURSORS];
    for (PtrListCursor& cursor : cursors) OpenPtrListCursor(list, &cursor);
    ClosePtrListCursor(&cursors[3]);
    PopFrontPtrList(list);
    void* const next = NextPtrListItem(&cursors[PTR_LIST_MAX_CURSORS - 1]);
    for (PtrListCursor& cursor : cursors) ClosePtrListCursor(&cursor);
    EXPECT_EQ(next, &entries[1]);
    EXPECT_EQ(list->cursorCount, 0u);
}

// Kind 51, set 255 and cleared 0 are the workstation application's numbers.
TEST(TroubleQueue, DeliversRecordsInQueueOrderAsTroubleReports) {
    RecordingSink sink;
    QueueTrouble(NewTroubleRecord(u"SNTP", u"A", 7, TROUBLE_SET));
    QueueTrouble(NewTroubleRecord(u"SNTP", u"B", 8, TROUBLE_CLEARED));
    DrainTroubles();
    EXPECT_EQ(reports, (std::vector<Report>{{u"SNTP", 51, 7, 255, u"A"}, {u"SNTP", 51, 8, 0, u"B"}}));
}

// Producers push while the sink runs: none lost or doubled, each producer's records in its order.
TEST(TroubleQueue, ProducersOnOtherThreadsLoseNothing) {
    const uint32_t PRODUCERS = 4;
    const uint32_t EACH = 400;
    RecordingSink sink;
    std::vector<uint32_t> refused(PRODUCERS, 0);
    std::vector<std::thread> producers;
    for (uint32_t producer = 0; producer < PRODUCERS; ++producer) {
        producers.emplace_back([producer, &refused] {
            for (uint32_t n = 0; n < EACH; ++n) {
                refused[producer] += QueueTrouble(NewTroubleRecord(u"", u"", producer * 100000 + n, TROUBLE_SET));
            }
        });
    }
    for (uint32_t pass = 0; pass < 1000000 && reports.size() < PRODUCERS * EACH; ++pass) DrainTroubles();
    for (std::thread& thread : producers) thread.join();
    DrainTroubles();
    std::vector<std::vector<uint32_t>> seen(PRODUCERS);
    for (const Report& r : reports) seen.at(r.code / 100000).push_back(r.code % 100000);
    std::vector<uint32_t> inOrder(EACH);
    for (uint32_t n = 0; n < EACH; ++n) inOrder[n] = n;
    for (uint32_t producer = 0; producer < PRODUCERS; ++producer) {
        EXPECT_EQ(refused[producer], 0u) << "producer " << producer;
        EXPECT_EQ(seen[producer], inOrder) << "producer " << producer;
    }
}

TEST(WorkstationReport, LayoutIsPinnedToTheByte) {
    uint8_t report[860];  // a larger report would overflow it
    std::memset(report, 0xEE, sizeof report);
    // Every byte of each 32-bit word in its place, a text unit above 255, and zero everywhere else.
    BuildWorkstationReport(report, u"SNTP", 0x04030201, 0x08070605, 0xFFFEFDFC, u"Time \u20AC.");
    uint8_t expected[860] = {16, 0, 0, 0, 3, 0, 0, 0, 'S', 0, 'N', 0, 'T', 0, 'P'};
    const uint8_t words[12] = {1, 2, 3, 4, 5, 6, 7, 8, 0xFC, 0xFD, 0xFE, 0xFF};
    const uint8_t text[13] = {'T', 0, 'i', 0, 'm', 0, 'e', 0, ' ', 0, 0xAC, 0x20, '.'};
    std::memcpy(expected + 520, words, sizeof words);
    std::memcpy(expected + 696, text, sizeof text);
    for (uint32_t i = 0; i < 860; ++i) ASSERT_EQ(expected[i], report[i]) << "byte " << i;
}

// 255 units of source and 81 of text arrive: the last unit of each field stays NUL.
TEST(WorkstationReport, CutsSourceAndTextToTheirFields) {
    uint8_t report[860];
    const std::u16string longSource(300, u's'), longText(82, u'x');
    BuildWorkstationReport(report, longSource.c_str(), 51, 7, 255, longText.c_str());
    EXPECT_EQ(0, std::memcmp("s\0\0\0", report + 516, 4));
    EXPECT_EQ(0, std::memcmp("x\0\0\0", report + 856, 4));
}
