// PtrList: ordered insertion among equal keys, find, removal at the front with consistent links,
// and cursors that survive the removal of the node they stand on.
#include "trouble/ptr_list.h"

#include <gtest/gtest.h>

#include <string>

namespace {
struct Entry { int32_t key; char tag; };

int32_t CompareEntries(const void* nodeKey, const void* key) {
    return static_cast<const Entry*>(nodeKey)->key - static_cast<const Entry*>(key)->key;
}

// The tags from head to tail, after checking that the backward links, the tail and the count
// describe the same list.
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
}  // namespace

TEST(PtrList, OrderedInsertionPlacesEqualKeysByTheFlagAndFindReturnsTheFirstEqual) {
    // Equal keys 5 arrive as a, d, e; 1 becomes the new head, 9 the new tail; z goes last by its own key.
    Entry entries[] = {{5, 'a'}, {1, 'b'}, {9, 'c'}, {5, 'd'}, {5, 'e'}, {0, 'f'}, {7, 'g'}};
    Entry z{0, 'z'}, keys[] = {{99, '-'}, {5, '-'}, {4, '-'}};
    for (uint32_t after : {0u, 1u}) {
        PtrList* list = CreatePtrList(CompareEntries);
        list->insertAfterEqual = after;
        for (Entry& entry : entries) {
            EXPECT_EQ(InsertOrderedPtrList(list, &entry, nullptr), 0);
        }
        EXPECT_EQ(InsertOrderedPtrList(list, &z, &keys[0]), 0);
        EXPECT_EQ(Tags(list), after == 0 ? "fbedagcz" : "fbadegcz");  // each new equal key first, or last
        EXPECT_EQ(FindPtrList(list, &keys[0]), &z);
        EXPECT_EQ(FindPtrList(list, &keys[1]), after == 0 ? &entries[4] : &entries[0]);
        EXPECT_EQ(FindPtrList(list, &keys[2]), nullptr);
        EXPECT_EQ(FindPtrList(list, nullptr), nullptr);
        DestroyPtrList(list);
    }
}

TEST(PtrList, RefusesWhatItCannotHoldAndCursorsSurviveRemovals) {
    Entry entries[] = {{1, 'a'}, {2, 'b'}, {3, 'c'}, {4, 'd'}};
    PtrList* list = CreatePtrList(nullptr);
    EXPECT_EQ(InsertOrderedPtrList(list, &entries[0], nullptr), 1);  // no comparator
    EXPECT_EQ(FindPtrList(list, &entries[0]), nullptr);
    EXPECT_EQ(PushPtrList(list, nullptr), 1);
    EXPECT_EQ(PopFrontPtrList(list), nullptr);
    // Popping the only node must clear the tail too, or the next push links behind the freed node.
    ASSERT_EQ(PushPtrList(list, &entries[1]), 0);
    EXPECT_EQ(PopFrontPtrList(list), &entries[1]);
    EXPECT_EQ(Tags(list), "");
    for (Entry& entry : entries) {
        ASSERT_EQ(PushPtrList(list, &entry), 0);
    }
    // Eleven cursors: the last is not registered (and, standing on a, is never read again).
    PtrListCursor cursors[PTR_LIST_MAX_CURSORS + 1];
    for (PtrListCursor& cursor : cursors) {
        OpenPtrListCursor(list, &cursor);
    }
    EXPECT_EQ(list->cursorCount, PTR_LIST_MAX_CURSORS);
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
    for (PtrListCursor& cursor : cursors) {
        ClosePtrListCursor(&cursor);
    }
    EXPECT_EQ(list->cursorCount, 0u);
    DestroyPtrList(list);
}
