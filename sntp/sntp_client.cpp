// The SNTP client thread: a random start delay, then the exchange ladder of growing time-outs,
// the clock set outright on success, troubles raised or cleared, and a day's wait (or twenty
// minutes after a failure) counted down in one-second sleeps that others may shorten.
#include <cstring>

#include "runtime/platform.h"
#include "runtime/runtime.h"
#include "runtime/text.h"
#include "sntp/ntp_time.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_control.h"
#include "sntp/sntp_test_seams.h"
#include "sntp/sntp_troubles.h"

std::atomic<int32_t> clientRunning{0};
std::atomic<int32_t> syncCountdown{0};
std::atomic<int32_t> lastResult{0};
std::atomic<int32_t> synchronised{0};
std::atomic<uint64_t> lastSyncTime{0};
std::atomic<uint64_t> lastDelay{0};
std::atomic<uint32_t> upstreamStratum{0};

namespace {
const int32_t START_DELAY_MIN_S = 60;       // countdown 60..119: first exchange 59..118 s after start
const int32_t START_DELAY_SPREAD_S = 60;
const int32_t RANDOM_RANGE = 32768;         // rand() gives 0..32767
const uint32_t COUNTDOWN_STEP_MS = 1000;
const int32_t AFTER_SUCCESS_S = 86400;      // the next exchange 86399 s later
const int32_t AFTER_FAILURE_S = 1200;       // the next ladder 1199 s later
// The ladder of time-outs: a first attempt of 5 s, then LADDER_STEPS attempts of 60 s shifted left
// by the step (60, 120, 240, 480 s). Only the last step's silence is reported.
const int32_t FIRST_TIMEOUT_S = 5;
const int32_t LADDER_TIMEOUT_BASE_S = 60;
const int32_t LADDER_STEPS = 4;
const uint64_t HALF_SECOND_FRACTION = 0x80000000ULL;  // rounds a 32.32 stamp to the nearest second
const int32_t SYNC_NOW_NOT_RUNNING = SNTP_CLIENT_NOT_STARTED;

std::atomic<SntpExchangeFunction> exchanger{SntpExchange};

void ReportClockSet(NtpTimestamp time) {
    const TimeSetListener listener = timeSetListener.load();
    if (listener == nullptr) {
        return;
    }
    const int64_t ntpSeconds = NtpEraSeconds(time + HALF_SECOND_FRACTION);
    listener(ntpSeconds - static_cast<int64_t>(ntpToUnixSeconds));
}

// What is left of a countdown step that ends at due on the tick count: 0 .. COUNTDOWN_STEP_MS.
uint32_t StepRemainder(uint32_t due) {
    const int32_t left = static_cast<int32_t>(due - ReadTickCount());  // across the count's wrap
    if (left <= 0) {
        return 0;  // behind: the steps catch up without sleeping until they are on time again
    }
    return left < static_cast<int32_t>(COUNTDOWN_STEP_MS) ? static_cast<uint32_t>(left) : COUNTDOWN_STEP_MS;
}

// One ladder of exchanges; returns the countdown to the next one.
int32_t RunExchangeLadder(const char* server) {
    int32_t timeoutSeconds = FIRST_TIMEOUT_S;
    int32_t step = -1;  // -1 the first attempt, then 0 .. LADDER_STEPS - 1
    for (;;) {
        // Seeded from the last success so that an exchanger which leaves an output alone keeps it.
        NtpTimestamp time = lastSyncTime.load();
        NtpTimestamp delay = lastDelay.load();
        uint32_t stratum = upstreamStratum.load();
        // Raised priority keeps the span between the two tick stamps tight, and on success the
        // span from the answer's arrival to the setting of the clock: the estimate is the
        // server's time at T4, and every moment spent after T4 is a moment the clock is late.
        SetCurrentThreadPriority(PRIORITY_HIGHEST);
        const SntpResult result =
            exchanger.load()(server, timeoutSeconds * static_cast<int32_t>(MS_PER_SECOND), &time, &delay, &stratum);
        if (result == SNTP_OK) {
            NtpSetSystemClock(time);
        }
        SetCurrentThreadPriority(PRIORITY_NORMAL);

        if (result == SNTP_OK) {
            lastSyncTime = time;
            lastDelay = delay;
            upstreamStratum = stratum;
            synchronised = 1;
            // Only "did not respond" is cleared: other troubles stay until the controller clears
            // them all, so the operator still sees what went wrong before.
            ClearSntpTrouble(SNTP_NO_RESPONSE);
            ReportClockSet(time);
            lastResult = SNTP_OK;
            return AFTER_SUCCESS_S;
        }
        if (result != SNTP_NO_RESPONSE) {
            // An answer that cannot be used will not improve with a longer wait.
            SetSntpTrouble(result);
            lastResult = result;
            return AFTER_FAILURE_S;
        }
        if (step == LADDER_STEPS - 1) {
            // The fifth silence in a row: only now is the server reported as silent.
            SetSntpTrouble(SNTP_NO_RESPONSE);
            lastResult = SNTP_NO_RESPONSE;
            return AFTER_FAILURE_S;
        }
        // Reported at once so that a waiting SntpSyncNow learns of the silence after the first
        // attempt, while the ladder goes on with its longer ones.
        lastResult = SNTP_NO_RESPONSE;
        step += 1;
        timeoutSeconds = LADDER_TIMEOUT_BASE_S << step;
    }
}
}  // namespace

void SetSntpExchanger(SntpExchangeFunction function) {
    exchanger = function != nullptr ? function : SntpExchange;
}

uint32_t SntpClientThread(uint64_t serverText) {
    char server[SNTP_SETTING_SIZE];
    const char* text = reinterpret_cast<const char*>(static_cast<uintptr_t>(serverText));
    CopyText(server, text, SNTP_SETTING_SIZE);
    clientRunning = 1;

    // The start delay spreads the workstations of an installation that power up together.
    SeedRandom(static_cast<uint32_t>(ReadWallClock(nullptr)));
    NextRandom();  // the first value after seeding follows the seed too closely; discarded
    const int32_t r = NextRandom();
    // The stop flag was cleared by whoever started this thread: clearing it here could erase a
    // stop asked for before this thread was first scheduled, and the thread would never end.
    synchronised = 0;
    int32_t countdown = r * START_DELAY_SPREAD_S / RANDOM_RANGE + START_DELAY_MIN_S;

    // A countdown of N means N - 1 one-second steps before the exchange. The steps end on a
    // grid of whole seconds of the tick count rather than after whole seconds of sleep: a sleep
    // ends late by up to a tick of the system timer (15.6 ms on Windows), and the 86 399 sleeps
    // of a day would put each day's exchange up to 22 minutes after the day, later every day.
    uint32_t stepDue = ReadTickCount() + COUNTDOWN_STEP_MS;
    do {
        countdown -= 1;
        syncCountdown = countdown;
        if (countdown != 0) {
            if (countdown < 1) {
                countdown = 1;
                syncCountdown = countdown;
            }
            SleepFor(StepRemainder(stepDue));
            stepDue += COUNTDOWN_STEP_MS;
            // Re-read: whoever stored 1 here gets an exchange on the next pass.
            countdown = syncCountdown.load();
            continue;
        }
        countdown = RunExchangeLadder(server);
        stepDue = ReadTickCount() + COUNTDOWN_STEP_MS;  // the next day counts from the ladder's end
    } while (stopRequested.load() == 0);

    clientRunning = 0;
    return 0;
}

SntpResult SntpSyncNow() {
    lastResult = SYNC_NOW_PENDING;
    syncCountdown = 1;
    while (clientRunning.load() != 0) {
        PauseBriefly();
        const int32_t result = lastResult.load();
        if (result != SYNC_NOW_PENDING) {
            return result;
        }
    }
    return SYNC_NOW_NOT_RUNNING;
}
