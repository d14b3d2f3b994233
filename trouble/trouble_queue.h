// The trouble queue: TroubleRecords travel first-in, first-out from the time threads, which
// produce them, to the service thread, whose DrainTroubles hands each to the one installed sink.
// Records are allocated by the producer and freed by the drain. Every access to the queue holds
// troubleLock; the sink itself runs with it held, which keeps reports strictly in queue order.
#pragma once

#include <cstdint>

const uint32_t TROUBLE_SET = 255;
const uint32_t TROUBLE_CLEARED = 0;
const uint32_t REPORT_KIND_TROUBLE = 51;
const uint32_t TROUBLE_TEXT_UNITS = 256;  // UTF-16 units of a record's source and text, NUL included

struct TroubleRecord {
    char16_t source[TROUBLE_TEXT_UNITS];  // name of the reporting part ("SNTP")
    char16_t text[TROUBLE_TEXT_UNITS];    // the localised message text
    uint32_t code;                        // trouble code
    uint32_t state;                       // TROUBLE_SET or TROUBLE_CLEARED
};

typedef void (*ReportCallback)(const char16_t* source, uint32_t kind, uint32_t code, uint32_t state,
                               const char16_t* text);

// Creates the queue and troubleLock once; later calls do nothing.
void CreateTroubleQueue();
// Installs the one sink (null removes it).
void SetReportCallback(ReportCallback callback);
// 1 while a sink is installed: producers build records only then.
int32_t TroubleSinkInstalled();
// Allocates a record filled with bounded copies of source and text (the last unit forced to
// NUL); null when it cannot be allocated.
TroubleRecord* NewTroubleRecord(const char16_t* source, const char16_t* text, uint32_t code, uint32_t state);
// Frees a record that QueueTrouble refused; queued records are freed by the drain.
void FreeTroubleRecord(TroubleRecord* record);
// Appends the record under troubleLock. 0, or 1 when it could not be queued (no queue, or no
// node): the record then stays the caller's.
int32_t QueueTrouble(TroubleRecord* record);
// Hands every queued record, in order, to the sink as (source, REPORT_KIND_TROUBLE, code, state,
// text) and frees it; records drained without a sink are discarded.
void DrainTroubles();
