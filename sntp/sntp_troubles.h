// SNTP results and troubles: the codes with their texts, the set of active troubles and the
// operations that raise and clear them as TroubleRecords, the stop flag of the time threads and
// the optional time-set listener.
#pragma once

#include <atomic>
#include <cstdint>

// 0 success; 1..10 failures, each also a trouble code of this service.
typedef int32_t SntpResult;

const SntpResult SNTP_OK = 0;
const SntpResult SNTP_SOCKET_ERROR = 1;
const SntpResult SNTP_NO_RESPONSE = 2;
const SntpResult SNTP_NOT_SYNCHRONISED = 3;
const SntpResult SNTP_INVALID_RESPONSE = 4;
const SntpResult SNTP_INCOMPATIBLE_VERSION = 5;
const SntpResult SNTP_INCONSISTENT_ADDRESS = 6;
const SntpResult SNTP_UNKNOWN_ERROR = 7;
const SntpResult SNTP_SERVER_NOT_STARTED = 8;
const SntpResult SNTP_CLIENT_NOT_STARTED = 9;
const SntpResult SNTP_CANNOT_RESOLVE = 10;
const SntpResult SNTP_RESULT_COUNT = 11;

struct SntpTroubleRow {
    int32_t messageId;        // key of the localised text; -1 never matches
    uint32_t troubleCode;     // code put into the TroubleRecord
    const char16_t* defaultText;
};

extern const SntpTroubleRow SntpTroubleTable[SNTP_RESULT_COUNT];

// Bit n set while trouble n is active.
extern std::atomic<uint32_t> troubleMask;
// 1 asks the time thread to end and silences SetSntpTrouble; set by the controller, and cleared
// by it just before it starts a time thread.
extern std::atomic<int32_t> stopRequested;

typedef void (*TimeSetListener)(int64_t unixSeconds);
extern std::atomic<TimeSetListener> timeSetListener;

// Queues a set record (unless a stop is requested) and sets the bit; no test for "already set".
void SetSntpTrouble(SntpResult code);
// While any trouble is active, queues a cleared record for code and clears its bit.
void ClearSntpTrouble(SntpResult code);
// Clears codes 1..10 in order while the mask is not 0, then zeroes the mask.
void ClearAllSntpTroubles();
// The default text of code: "Ok" below 1, "Unknown Error" above 10.
const char16_t* SntpResultText(SntpResult code);
void SetTimeSetListener(TimeSetListener listener);
