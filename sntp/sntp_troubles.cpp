// SNTP trouble codes and shared flags: the table of results with their texts, the mask of
// active troubles, the records that raise and clear them on the trouble queue, the stop flag of
// the time threads and the optional time-set listener.
#include "sntp/sntp_troubles.h"

#include "config/message_texts.h"
#include "trouble/trouble_queue.h"

// Every SNTP trouble reaches the workstation with trouble code 7; the texts tell them apart.
// The double spaces after full stops belong to the texts. Message id -1 never names a text.
const SntpTroubleRow SntpTroubleTable[SNTP_RESULT_COUNT] = {
    {-1, 0, u""},
    {6204, 7, u"You may need to restart the PC due to an unrecoverable socket error."},
    {6205, 7, u"The time server did not respond.  Contact your network administrator."},
    {6206, 7, u"Remote SNTP Server is not synchronized.  Contact your network administrator."},
    {6207, 7, u"Remote SNTP Server sent an invalid response."},
    {6208, 7, u"Remote SNTP Server is an incompatible version."},
    {6209, 7, u"Remote SNTP Server used an inconsistent address."},
    {6210, 7, u"Remote SNTP Server unknown error."},
    {6211, 7, u"Local SNTP Server could not start.  Verify the Windows Time Service is disabled."},
    {-1, 7, u"Local SNTP Client not started"},
    {11068, 7, u"Local SNTP Client: Cannot resolve host name"},
};

std::atomic<uint32_t> troubleMask{0};
std::atomic<int32_t> stopRequested{0};
std::atomic<TimeSetListener> timeSetListener{nullptr};

namespace {
const char16_t TROUBLE_SOURCE[] = u"SNTP";
const uint32_t TROUBLE_MASK_BITS = 32;
// Codes outside the table still reach the workstation as SNTP troubles, with the generic text.
const uint32_t SNTP_TROUBLE_CODE = 7;
const int32_t NO_MESSAGE_ID = -1;

uint32_t MaskBit(SntpResult code) {
    return 1u << (static_cast<uint32_t>(code) % TROUBLE_MASK_BITS);
}

// Queues one record for code while a sink is installed. A record that cannot be allocated or
// queued is dropped: the trouble then simply goes unreported.
void QueueSntpTrouble(SntpResult code, uint32_t state) {
    if (TroubleSinkInstalled() == 0) {
        return;
    }
    const bool known = code >= 0 && code < SNTP_RESULT_COUNT;
    const int32_t messageId = known ? SntpTroubleTable[code].messageId : NO_MESSAGE_ID;
    const uint32_t troubleCode = known ? SntpTroubleTable[code].troubleCode : SNTP_TROUBLE_CODE;
    const char16_t* defaultText = known ? SntpTroubleTable[code].defaultText : SntpResultText(code);
    char16_t text[TROUBLE_TEXT_UNITS];
    GetMessageText(static_cast<uint32_t>(messageId), text, TROUBLE_TEXT_UNITS, defaultText);
    TroubleRecord* record = NewTroubleRecord(TROUBLE_SOURCE, text, troubleCode, state);
    if (record != nullptr && QueueTrouble(record) != 0) {
        FreeTroubleRecord(record);
    }
}
}  // namespace

void SetSntpTrouble(SntpResult code) {
    if (stopRequested.load() != 0) {
        return;
    }
    // No test for an active trouble: every call is reported again.
    QueueSntpTrouble(code, TROUBLE_SET);
    troubleMask.fetch_or(MaskBit(code));
}

void ClearSntpTrouble(SntpResult code) {
    // The whole mask decides, not this code's bit: while any trouble is active every clear is
    // reported, also for codes never raised (the server clears trouble 2 after each answer).
    if (troubleMask.load() == 0) {
        return;
    }
    QueueSntpTrouble(code, TROUBLE_CLEARED);
    troubleMask.fetch_and(~MaskBit(code));
}

void ClearAllSntpTroubles() {
    // Clears go out for every code from 1 up to the highest active one, in order. No stop test:
    // the clears of a restart must reach the workstation.
    for (SntpResult code = SNTP_SOCKET_ERROR; code <= SNTP_CANNOT_RESOLVE; ++code) {
        ClearSntpTrouble(code);
    }
    troubleMask.store(0);
}

const char16_t* SntpResultText(SntpResult code) {
    if (code < SNTP_SOCKET_ERROR) {
        return u"Ok";
    }
    if (code > SNTP_CANNOT_RESOLVE) {
        return u"Unknown Error";
    }
    return SntpTroubleTable[code].defaultText;
}

void SetTimeSetListener(TimeSetListener listener) {
    timeSetListener.store(listener);
}
