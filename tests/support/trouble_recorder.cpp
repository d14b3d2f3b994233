// The recording trouble sink of the tests.
#include "tests/support/trouble_recorder.h"

#include <mutex>
#include <string>
#include <utility>

#include "sntp/sntp_troubles.h"
#include "trouble/trouble_queue.h"

namespace {
std::mutex seenMutex;
std::vector<SeenTrouble> seen;

void RecordTrouble(const char16_t*, uint32_t, uint32_t, uint32_t state, const char16_t* text) {
    int32_t code = -1;
    for (int32_t k = SNTP_SOCKET_ERROR; k < SNTP_RESULT_COUNT; ++k) {
        if (std::u16string(text) == SntpTroubleTable[k].defaultText) code = k;
    }
    std::lock_guard<std::mutex> hold(seenMutex);
    seen.push_back(SeenTrouble{code, state});
}
}  // namespace

void StopTroubleRecorder() {
    SetReportCallback(nullptr);
    DrainTroubles();  // without a sink: discarded
    troubleMask = 0;
}

void StartTroubleRecorder() {
    CreateTroubleQueue();
    StopTroubleRecorder();
    {
        std::lock_guard<std::mutex> hold(seenMutex);
        seen.clear();
    }
    SetReportCallback(RecordTrouble);  // outside seenMutex: a drain takes the two locks the other way
}

std::vector<SeenTrouble> TakeTroubles() {
    DrainTroubles();
    std::lock_guard<std::mutex> hold(seenMutex);
    return std::exchange(seen, {});
}
