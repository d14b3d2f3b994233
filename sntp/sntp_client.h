// The SNTP client: one exchange with a time server (SntpExchange) and the thread that runs it
// after a random start delay, retries with growing time-outs, sets the clock and waits a day.
#pragma once

#include <atomic>
#include <cstdint>

#include "sntp/ntp_time.h"
#include "sntp/sntp_troubles.h"

// One request and answer with server (dotted address or host name) on UDP port 123. 0 and the
// outputs (time, and delay and stratum when given), or the failure code with the outputs untouched.
SntpResult SntpExchange(const char* server, int32_t timeoutMs, NtpTimestamp* time, NtpTimestamp* delay,
                        uint32_t* stratum);

// The checks of one answer, in their documented order: the first failing one decides.
// request and answer are the 48 bytes sent and received; source and port where it came from.
SntpResult CheckSntpAnswer(const uint8_t* request, const uint8_t* answer, uint32_t server, uint32_t source,
                           uint16_t sourcePort);

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

// The exchange the client thread calls; tests replace it to run the schedule in virtual time.
typedef SntpResult (*SntpExchangeFunction)(const char* server, int32_t timeoutMs, NtpTimestamp* time,
                                           NtpTimestamp* delay, uint32_t* stratum);
void SetSntpExchanger(SntpExchangeFunction exchanger);  // null restores SntpExchange
