// PtrList: ordered insertion among equal keys, find, removal at the front with consistent links,
// and cursors that survive the removal of the node they stand on.
#include "trouble/ptr_list.h"

#include <gtest/gtest.h>

#include <vector>

namespace {
struct Entry {
    int32_t key;
    char tag;
};

int32_t CompareEntries(const void* nodeKey, const void* key) {
    const int32_t left = static_cast<const Entry*>(nodeKey)->key;
    const int32_t right = static_cast<const Entry*>(key)->key;
    return left < right ? -1 : (left > right ? 1 : 0);
}

// The tags from head to tail, after checking that the backward links, the tail and the count
// describe the same list.
std::string Tags(const PtrList* list) {
    std::string forward;
    const PtrListNode* last = nullptr;
    for (const PtrListNode* node = list->head; node != nullptr; node = node->next) {
        EXPECT_EQ(node->previous, last);
        forward += static_cast<const Entry*>(node->item)->tag;
        last = node;
    }
    EXPECT_EQ(list->tail, last);
    EXPECT_EQ(list->count, forward.size());
    return forward;
}

std::string InsertAll(uint32_t insertAfterEqual, std::vector<Entry>& entries) {
    PtrList* list = CreatePtrList(CompareEntries);
    list->insertAfterEqual = insertAfterEqual;
    for (Entry& entry : entries) {
        EXPECT_EQ(InsertOrderedPtrList(list, &entry, nullptr), 0);
    }
    const std::string tags = Tags(list);
    DestroyPtrList(list);
    return tags;
}
}  // namespace

TEST(PtrList, OrderedInsertionKeepsKeysAscendingAndPlacesEqualKeysByTheFlag) {
    // Equal keys 5 arrive as a, d, e; 1 becomes the new head, 9 the new tail.
    std::vector<Entry> entries = {{5, 'a'}, {1, 'b'}, {9, 'c'}, {5, 'd'}, {5, 'e'}, {0, 'f'}, {7, 'g'}};
    EXPECT_EQ(InsertAll(0, entries), "fbedagc");  // each new equal key goes first
    EXPECT_EQ(InsertAll(1, entries), "fbadegc");  // each new equal key goes last
}

TEST(PtrList, OrderedInsertionUsesAnExplicitKeyAndFindReturnsTheFirstEqualFromTheHead) {
    PtrList* list = CreatePtrList(CompareEntries);
    Entry items[] = {{0, 'x'}, {0, 'y'}, {0, 'z'}};
    Entry keys[] = {{30, '-'}, {10, '-'}, {30, '-'}};
    list->insertAfterEqual = 1;
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(InsertOrderedPtrList(list, &items[i], &keys[i]), 0);
    }
    EXPECT_EQ(Tags(list), "yxz");
    Entry probe{30, '-'};
    EXPECT_EQ(FindPtrList(list, &probe), &items[0]);
    probe.key = 20;
    EXPECT_EQ(FindPtrList(list, &probe), nullptr);
    EXPECT_EQ(FindPtrList(list, nullptr), nullptr);
    DestroyPtrList(list);
}

TEST(PtrList, RefusesWhatItCannotHoldAndEmptiesCleanly) {
    Entry a{1, 'a'};
    Entry b{2, 'b'};
    PtrList* list = CreatePtrList(nullptr);
    EXPECT_EQ(InsertOrderedPtrList(list, &a, nullptr), 1);  // no comparator
    EXPECT_EQ(FindPtrList(list, &a), nullptr);
    EXPECT_EQ(PushPtrList(list, nullptr), 1);
    EXPECT_EQ(PopFrontPtrList(list), nullptr);
    EXPECT_EQ(Tags(list), "");

    // Popping the only node must clear the tail too, or the next push links behind the freed node.
    ASSERT_EQ(PushPtrList(list, &a), 0);
    EXPECT_EQ(PopFrontPtrList(list), &a);
    EXPECT_EQ(Tags(list), "");
    ASSERT_EQ(PushPtrList(list, &b), 0);
    EXPECT_EQ(Tags(list), "b");
    DestroyPtrList(list);
}

TEST(PtrList, ACursorOnARemovedNodeMovesToItsSuccessorWithoutSkipping) {
    PtrList* list = CreatePtrList(nullptr);
    Entry entries[] = {{0, 'a'}, {0, 'b'}, {0, 'c'}, {0, 'd'}};
    for (Entry& entry : entries) {
        PushPtrList(list, &entry);
    }
    PtrListCursor cursor;
    OpenPtrListCursor(list, &cursor);
    // The cursor stands on a; removing a moves it to b, which is still to be returned.
    EXPECT_EQ(PopFrontPtrList(list), &entries[0]);
    EXPECT_EQ(NextPtrListItem(&cursor), &entries[1]);

    // Now on c: removing it from the middle moves the cursor on to d.
    EXPECT_EQ(RemovePtrListItem(list, &entries[2]), 0);
    EXPECT_EQ(NextPtrListItem(&cursor), &entries[3]);
    EXPECT_EQ(NextPtrListItem(&cursor), nullptr);
    EXPECT_EQ(Tags(list), "bd");
    ClosePtrListCursor(&cursor);
    DestroyPtrList(list);
}

TEST(PtrList, AnEleventhCursorTraversesButIsNotRegistered) {
    PtrList* list = CreatePtrList(nullptr);
    Entry entries[] = {{0, 'a'}, {0, 'b'}};
    for (Entry& entry : entries) {
        PushPtrList(list, &entry);
    }
    PtrListCursor cursors[PTR_LIST_MAX_CURSORS + 1];
    for (PtrListCursor& cursor : cursors) {
        OpenPtrListCursor(list, &cursor);
    }
    EXPECT_EQ(list->cursorCount, PTR_LIST_MAX_CURSORS);
    PtrListCursor& extra = cursors[PTR_LIST_MAX_CURSORS];
    EXPECT_EQ(NextPtrListItem(&extra), &entries[0]);
    EXPECT_EQ(NextPtrListItem(&extra), &entries[1]);
    EXPECT_EQ(NextPtrListItem(&extra), nullptr);
    // Closing one frees its slot: every registered cursor is still fixed up.
    ClosePtrListCursor(&cursors[3]);
    PopFrontPtrList(list);
    EXPECT_EQ(NextPtrListItem(&cursors[9]), &entries[1]);
    for (PtrListCursor& cursor : cursors) {
        ClosePtrListCursor(&cursor);
    }
    EXPECT_EQ(list->cursorCount, 0u);
    DestroyPtrList(list);
}
