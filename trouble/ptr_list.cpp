// PtrList: the doubly linked pointer list behind the trouble queue and the configuration store.
#include "trouble/ptr_list.h"

#include <cstdlib>

namespace {
PtrListNode* NewNode(void* key, void* item) {
    PtrListNode* node = static_cast<PtrListNode*>(calloc(1, sizeof(PtrListNode)));
    if (node != nullptr) {
        node->key = key;
        node->item = item;
    }
    return node;
}

// Cursors standing on a node about to be freed move to its successor, marked as already
// advanced, so a traversal in progress neither touches freed memory nor skips an element.
void StepCursorsPast(PtrList* list, const PtrListNode* node) {
    for (uint32_t i = 0; i < list->cursorCount; ++i) {
        PtrListCursor* cursor = list->cursors[i];
        if (cursor->current == node) {
            cursor->current = node->next;
            cursor->advanced = 1;
        }
    }
}

void Unlink(PtrList* list, PtrListNode* node) {
    StepCursorsPast(list, node);
    if (node->previous != nullptr) {
        node->previous->next = node->next;
    } else {
        list->head = node->next;
    }
    if (node->next != nullptr) {
        node->next->previous = node->previous;
    } else {
        list->tail = node->previous;
    }
    list->count -= 1;
    free(node);
}
}  // namespace

PtrList* CreatePtrList(PtrListCompare compare) {
    PtrList* list = static_cast<PtrList*>(calloc(1, sizeof(PtrList)));
    if (list != nullptr) {
        list->compare = compare;
    }
    return list;
}

void DestroyPtrList(PtrList* list) {
    if (list == nullptr) {
        return;
    }
    PtrListNode* node = list->head;
    while (node != nullptr) {
        PtrListNode* next = node->next;
        free(node);
        node = next;
    }
    free(list);
}

int32_t PushPtrList(PtrList* list, void* item) {
    if (list == nullptr || item == nullptr) {
        return 1;
    }
    PtrListNode* node = NewNode(item, item);
    if (node == nullptr) {
        return 1;
    }
    node->previous = list->tail;
    if (list->tail != nullptr) {
        list->tail->next = node;
    } else {
        list->head = node;
    }
    list->tail = node;
    list->count += 1;
    return 0;
}

int32_t InsertOrderedPtrList(PtrList* list, void* item, void* key) {
    if (list == nullptr || item == nullptr || list->compare == nullptr) {
        return 1;
    }
    if (key == nullptr) {
        key = item;
    }
    const int32_t threshold = list->insertAfterEqual != 0 ? 1 : 0;
    for (PtrListNode* at = list->head; at != nullptr; at = at->next) {
        if (list->compare(at->key, key) >= threshold) {
            PtrListNode* node = NewNode(key, item);
            if (node == nullptr) {
                return 1;
            }
            node->next = at;
            node->previous = at->previous;
            if (at->previous != nullptr) {
                at->previous->next = node;
            } else {
                list->head = node;
            }
            at->previous = node;
            list->count += 1;
            return 0;
        }
    }
    if (PushPtrList(list, item) != 0) {
        return 1;
    }
    list->tail->key = key;
    return 0;
}

void* FindPtrList(const PtrList* list, const void* key) {
    if (list == nullptr || key == nullptr || list->compare == nullptr) {
        return nullptr;
    }
    for (const PtrListNode* node = list->head; node != nullptr; node = node->next) {
        if (list->compare(node->key, key) == 0) {
            return node->item;
        }
    }
    return nullptr;
}

void* PopFrontPtrList(PtrList* list) {
    if (list == nullptr || list->head == nullptr) {
        return nullptr;
    }
    void* item = list->head->item;
    Unlink(list, list->head);
    return item;
}

int32_t RemovePtrListItem(PtrList* list, const void* item) {
    if (list == nullptr) {
        return 1;
    }
    for (PtrListNode* node = list->head; node != nullptr; node = node->next) {
        if (node->item == item) {
            Unlink(list, node);
            return 0;
        }
    }
    return 1;
}

void OpenPtrListCursor(PtrList* list, PtrListCursor* cursor) {
    if (cursor == nullptr) {
        return;
    }
    cursor->list = list;
    cursor->current = list != nullptr ? list->head : nullptr;
    cursor->advanced = 0;
    if (list != nullptr && list->cursorCount < PTR_LIST_MAX_CURSORS) {
        list->cursors[list->cursorCount++] = cursor;
    }
}

void* NextPtrListItem(PtrListCursor* cursor) {
    if (cursor == nullptr) {
        return nullptr;
    }
    PtrListNode* node = cursor->current;
    if (node == nullptr) {
        return nullptr;
    }
    cursor->current = node->next;
    cursor->advanced = 0;
    return node->item;
}

void ClosePtrListCursor(PtrListCursor* cursor) {
    if (cursor == nullptr) {
        return;
    }
    PtrList* list = cursor->list;
    if (list == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < list->cursorCount; ++i) {
        if (list->cursors[i] == cursor) {
            list->cursors[i] = list->cursors[list->cursorCount - 1];
            list->cursors[--list->cursorCount] = nullptr;
            break;
        }
    }
    cursor->list = nullptr;
    cursor->current = nullptr;
}
