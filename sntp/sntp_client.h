// The SNTP client thread: after a random start delay it runs the exchange with retries of
// growing time-outs, sets the clock and waits a day.
#pragma once

#include <atomic>
#include <cstdint>

#include "sntp/ntp_time.h"
#include "sntp/sntp_exchange.h"
#include "sntp/sntp_troubles.h"

// Thread entry: argument is a pointer to the server text. Returns 0 when stopRequested ends it.
uint32_t SntpClientThread(uint64_t serverText);
// Asks the running client for an exchange now and waits for its result; 9 if it is not running.
SntpResult SntpSyncNow();

const int32_t SYNC_NOW_PENDING = INT32_MIN;  // 0x80000000 in lastResult

extern std::atomic<int32_t> clientRunning;
extern std::atomic<int32_t> syncCountdown;
extern std::atomic<int32_t> lastResult;
extern std::atomic<int32_t> synchronised;
extern std::atomic<uint64_t> lastSyncTime;
extern std::atomic<uint64_t> lastDelay;
extern std::atomic<uint32_t> upstreamStratum;
