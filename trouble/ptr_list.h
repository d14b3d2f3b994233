// PtrList: a doubly linked list of (key, item) pointer pairs with an optional comparator,
// ordered insertion, find by key, pop from the front and registered cursors that survive the
// removal of the node they stand on. The list owns its nodes, never the items. No lock of its
// own: every user guards it.
#pragma once

#include <cstdint>

// (key of a node in the list, key of the new or sought item): negative, zero or positive.
typedef int32_t (*PtrListCompare)(const void* nodeKey, const void* key);

struct PtrListNode {
    PtrListNode* previous;
    PtrListNode* next;
    void* key;
    void* item;
};

struct PtrList;

struct PtrListCursor {
    PtrList* list;
    PtrListNode* current;  // the head when made
    uint32_t advanced;     // 1 when a removal already moved current to the next node
};

const uint32_t PTR_LIST_MAX_CURSORS = 10;

struct PtrList {
    PtrListNode* head;
    PtrListNode* tail;
    PtrListCompare compare;
    uint64_t count;
    PtrListCursor* cursors[PTR_LIST_MAX_CURSORS];
    uint32_t cursorCount;
    uint32_t insertAfterEqual;  // 0: a new item goes before equal keys; otherwise after them
};

// A zeroed list with the given comparator (may be null); null when it cannot be allocated.
PtrList* CreatePtrList(PtrListCompare compare);
// Frees the list and its nodes (never the items). Null is ignored.
void DestroyPtrList(PtrList* list);

// Appends at the tail with key = item. 0, or 1 for a null list or item or a failed allocation
// (the item then stays the caller's).
int32_t PushPtrList(PtrList* list, void* item);
// Ordered insertion by the comparator (a null key means key = item). 1 without a comparator.
int32_t InsertOrderedPtrList(PtrList* list, void* item, void* key);
// The item of the first node whose key compares equal; null if none, for a null key, or
// without a comparator.
void* FindPtrList(const PtrList* list, const void* key);
// Unlinks the head, steps cursors past it, frees the node and returns its item; null if empty.
void* PopFrontPtrList(PtrList* list);
// Unlinks the first node holding item, steps cursors past it and frees the node. 0, or 1 when
// the item is not in the list.
int32_t RemovePtrListItem(PtrList* list, const void* item);

// Makes a cursor on the head and registers it (up to ten; an eleventh still works but gets no
// fix-up when nodes are removed). The cursor must be closed before the list is destroyed.
void OpenPtrListCursor(PtrList* list, PtrListCursor* cursor);
// The item at the cursor, then moves on; null at the end.
void* NextPtrListItem(PtrListCursor* cursor);
void ClosePtrListCursor(PtrListCursor* cursor);
