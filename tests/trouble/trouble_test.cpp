// The trouble path: PtrList (ordered insertion, find, removal, cursors that survive removals), the
// trouble queue (order, bounded texts, no sink, producers on other threads) and the 860-byte
// workstation report pinned to the byte. The end-to-end tests deliver it through the real mailslot.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "trouble/ptr_list.h"
#include "trouble/trouble_queue.h"
#include "trouble/workstation_report.h"

namespace {
struct Entry { int32_t key; char tag; };

int32_t CompareEntries(const void* nodeKey, const void* key) {
    return static_cast<const Entry*>(nodeKey)->key - static_cast<const Entry*>(key)->key;
}

// The tags from head to tail, once the backward links, the tail and the count agree with them.
std::string Tags(const PtrList* list) {
    std::string forward;
    const PtrListNode* last = nullptr;
    for (const PtrListNode* node = list->head; node != nullptr; last = node, node = node->next) {
        EXPECT_EQ(node->previous, last);
        forward += static_cast<const Entry*>(node->item)->tag;
    }
    EXPECT_EQ(list->tail, last);
    EXPECT_EQ(list->count, forward.size());
    return forward;
}

using Report = std::tuple<std::u16string, uint32_t, uint32_t, uint32_t, std::u16string>;
std::vector<Report> reports;  // written by the sink, which runs on the draining thread only

void RecordReport(const char16_t* source, uint32_t kind, uint32_t code, uint32_t state, const char16_t* text) {
    reports.emplace_back(source, kind, code, state, text);
    std::this_thread::yield();  // a slow sink holds troubleLock, so producers queue up behind it
}

}  // namespace

TEST(PtrList, InsertsEqualKeysByTheFlagFindsTheFirstEqualRefusesWhatItCannotHoldAndKeepsCursorsPastRemovals) {
    // Equal keys 5 arrive as a, d, e; 1 becomes the new head, 9 the new tail; z goes last by its own key.
    Entry entries[] = {{5, 'a'}, {1, 'b'}, {9, 'c'}, {5, 'd'}, {5, 'e'}, {0, 'f'}, {7, 'g'}};
    Entry z{0, 'z'}, keys[] = {{99, '-'}, {5, '-'}, {4, '-'}};
    for (uint32_t after : {0u, 1u}) {
        PtrList* list = CreatePtrList(CompareEntries);
        list->insertAfterEqual = after;
        for (Entry& entry : entries) EXPECT_EQ(InsertOrderedPtrList(list, &entry, nullptr), 0);
        EXPECT_EQ(InsertOrderedPtrList(list, &z, &keys[0]), 0);
        EXPECT_EQ(Tags(list), after == 0 ? "fbedagcz" : "fbadegcz");  // each new equal key first, or last
        EXPECT_EQ(FindPtrList(list, &keys[0]), &z);
        EXPECT_EQ(FindPtrList(list, &keys[1]), after == 0 ? &entries[4] : &entries[0]);
        EXPECT_EQ(FindPtrList(list, &keys[2]), nullptr);
        EXPECT_EQ(FindPtrList(list, nullptr), nullptr);
        DestroyPtrList(list);
    }

    PtrList* list = CreatePtrList(nullptr);
    EXPECT_EQ(InsertOrderedPtrList(list, &entries[0], nullptr), 1);  // no comparator
    EXPECT_EQ(PopFrontPtrList(list), nullptr);
    // Popping the only node must clear the tail too, or the next push links behind the freed node.
    ASSERT_EQ(PushPtrList(list, &entries[1]), 0);
    EXPECT_EQ(PopFrontPtrList(list), &entries[1]);
    EXPECT_EQ(Tags(list), "");
    for (int i = 0; i < 4; ++i) ASSERT_EQ(PushPtrList(list, &entries[i]), 0);  // tags a b c d
    // Eleven cursors: the last is not registered (and, standing on a, is never read again).
    PtrListCursor cursors[11];
    for (PtrListCursor& cursor : cursors) OpenPtrListCursor(list, &cursor);
    EXPECT_EQ(list->cursorCount, 10u);
    // A cursor on a removed node moves to its successor, which is still to be returned.
    EXPECT_EQ(PopFrontPtrList(list), &entries[0]);
    EXPECT_EQ(NextPtrListItem(&cursors[0]), &entries[1]);
    EXPECT_EQ(RemovePtrListItem(list, &entries[2]), 0);  // the cursor's node, in the middle
    EXPECT_EQ(RemovePtrListItem(list, &entries[2]), 1);
    EXPECT_EQ(NextPtrListItem(&cursors[0]), &entries[3]);
    EXPECT_EQ(NextPtrListItem(&cursors[0]), nullptr);
    EXPECT_EQ(Tags(list), "bd");
    // Closing one moves the last registered cursor into its slot, where it is still fixed up.
    ClosePtrListCursor(&cursors[3]);
    EXPECT_EQ(PopFrontPtrList(list), &entries[1]);
    EXPECT_EQ(NextPtrListItem(&cursors[9]), &entries[3]);
    for (PtrListCursor& cursor : cursors) ClosePtrListCursor(&cursor);
    EXPECT_EQ(list->cursorCount, 0u);
    DestroyPtrList(list);
}

TEST(TroubleQueue, DeliversInQueueOrderWithTextsCutTo255UnitsDiscardsWithoutASinkAndLosesNothingToRaces) {
    CreateTroubleQueue();
    SetReportCallback(RecordReport);
    const std::u16string longSource(300, u's'), longText(300, u't');
    ASSERT_EQ(QueueTrouble(NewTroubleRecord(u"SNTP", u"A", 7, TROUBLE_SET)), 0);
    ASSERT_EQ(QueueTrouble(NewTroubleRecord(u"SNTP", u"B", 8, TROUBLE_CLEARED)), 0);
    ASSERT_EQ(QueueTrouble(NewTroubleRecord(longSource.c_str(), longText.c_str(), 9, TROUBLE_SET)), 0);
    DrainTroubles();
    // Kind 51, set 255 and cleared 0 are the workstation application's numbers.
    EXPECT_EQ(reports, (std::vector<Report>{{u"SNTP", 51, 7, 255, u"A"}, {u"SNTP", 51, 8, 0, u"B"},
                                            {longSource.substr(0, 255), 51, 9, 255, longText.substr(0, 255)}}));
    EXPECT_EQ(TroubleSinkInstalled(), 1);

    // Without a sink the drain frees the record (the leak checker of the native build watches).
    SetReportCallback(nullptr);
    EXPECT_EQ(TroubleSinkInstalled(), 0);
    ASSERT_EQ(QueueTrouble(NewTroubleRecord(u"SNTP", u"lost", 7, TROUBLE_SET)), 0);
    DrainTroubles();
    EXPECT_EQ(QueueTrouble(nullptr), 1);

    // Producers push while the sink runs: none lost, doubled or back from the sinkless drain; each in order.
    SetReportCallback(RecordReport);
    const uint32_t PRODUCERS = 4, EACH = 400;
    reports.clear();
    std::vector<std::thread> producers;
    for (uint32_t producer = 0; producer < PRODUCERS; ++producer) {
        producers.emplace_back([producer] {
            for (uint32_t n = 0; n < EACH; ++n)
                EXPECT_EQ(0, QueueTrouble(NewTroubleRecord(u"", u"", producer * 100000 + n, TROUBLE_SET)));
        });
    }
    for (uint32_t pass = 0; pass < 1000000 && reports.size() < PRODUCERS * EACH; ++pass) DrainTroubles();
    for (std::thread& thread : producers) thread.join();
    DrainTroubles();
    ASSERT_EQ(reports.size(), PRODUCERS * EACH);
    std::vector<uint32_t> next(PRODUCERS, 0);
    for (const Report& r : reports) EXPECT_EQ(std::get<2>(r) % 100000, next.at(std::get<2>(r) / 100000)++);
}

TEST(WorkstationReport, LayoutIsPinnedToTheByteAndFieldsAreCut) {
    uint8_t report[860];  // a larger report would overflow it
    std::memset(report, 0xEE, sizeof report);
    // Every byte of each 32-bit word in its place, a text unit above 255, and zero everywhere else.
    BuildWorkstationReport(report, u"SNTP", 0x04030201, 0x08070605, 0xFFFEFDFC, u"Time \u20AC.");
    uint8_t expected[860] = {16, 0, 0, 0, 3, 0, 0, 0, 'S', 0, 'N', 0, 'T', 0, 'P'};
    const uint8_t words[12] = {1, 2, 3, 4, 5, 6, 7, 8, 0xFC, 0xFD, 0xFE, 0xFF};
    const uint8_t text[13] = {'T', 0, 'i', 0, 'm', 0, 'e', 0, ' ', 0, 0xAC, 0x20, '.'};
    std::memcpy(expected + 520, words, sizeof words);
    std::memcpy(expected + 696, text, sizeof text);
    for (uint32_t i = 0; i < 860; ++i) ASSERT_EQ(expected[i], report[i]) << i;
    // 255 units of source and 81 of text arrive: the last unit of each field stays NUL.
    const std::u16string longSource(300, u's'), longText(82, u'x');
    BuildWorkstationReport(report, longSource.c_str(), 51, 7, 255, longText.c_str());
    EXPECT_EQ(0, std::memcmp("s\0\0\0", report + 516, 4));
    EXPECT_EQ(0, std::memcmp("x\0\0\0", report + 856, 4));
}
