// The trouble queue: the PtrList that carries TroubleRecords from the time threads to the
// service thread, troubleLock that guards it, and the one installed sink.
#include "trouble/trouble_queue.h"

#include <atomic>
#include <cstdlib>

#include "runtime/runtime.h"
#include "runtime/text.h"
#include "trouble/ptr_list.h"

namespace {
// Null until the controller first starts synchronisation; never destroyed afterwards.
PtrList* troubleQueue = nullptr;
Lock troubleLock;
// Read by the producers on the time threads, written by the service thread.
std::atomic<ReportCallback> reportCallback{nullptr};
}  // namespace

void CreateTroubleQueue() {
    if (troubleQueue != nullptr) {
        return;
    }
    InitLock(&troubleLock);
    troubleQueue = CreatePtrList(nullptr);
}

void SetReportCallback(ReportCallback callback) {
    reportCallback.store(callback);
}

int32_t TroubleSinkInstalled() {
    return reportCallback.load() != nullptr ? 1 : 0;
}

TroubleRecord* NewTroubleRecord(const char16_t* source, const char16_t* text, uint32_t code, uint32_t state) {
    TroubleRecord* record = static_cast<TroubleRecord*>(calloc(1, sizeof(TroubleRecord)));
    if (record == nullptr) {
        return nullptr;
    }
    CopyText16(record->source, source, TROUBLE_TEXT_UNITS);
    CopyText16(record->text, text, TROUBLE_TEXT_UNITS);
    record->code = code;
    record->state = state;
    return record;
}

void FreeTroubleRecord(TroubleRecord* record) {
    free(record);
}

int32_t QueueTrouble(TroubleRecord* record) {
    if (troubleQueue == nullptr || record == nullptr) {
        return 1;
    }
    EnterLock(&troubleLock);
    const int32_t status = PushPtrList(troubleQueue, record);
    LeaveLock(&troubleLock);
    return status;
}

void DrainTroubles() {
    if (troubleQueue == nullptr) {
        return;  // nothing was ever queued, and troubleLock does not exist yet
    }
    EnterLock(&troubleLock);
    // Producers wait on troubleLock, so the loop ends once the records present now are gone.
    TroubleRecord* record = static_cast<TroubleRecord*>(PopFrontPtrList(troubleQueue));
    while (record != nullptr) {
        char16_t source[TROUBLE_TEXT_UNITS];
        char16_t text[TROUBLE_TEXT_UNITS];
        CopyText16(source, record->source, TROUBLE_TEXT_UNITS);
        CopyText16(text, record->text, TROUBLE_TEXT_UNITS);
        const ReportCallback sink = reportCallback.load();
        if (sink != nullptr) {
            sink(source, REPORT_KIND_TROUBLE, record->code, record->state, text);
        }
        FreeTroubleRecord(record);
        record = static_cast<TroubleRecord*>(PopFrontPtrList(troubleQueue));
    }
    LeaveLock(&troubleLock);
}
