// The time synchronisation's test seam: what only tests (and the tools that run the server alone)
// set. The client's exchange can be replaced, so that its schedule runs in virtual time; the
// server can bind another port than 123.
#pragma once

#include <atomic>
#include <cstdint>

#include "sntp/ntp_time.h"
#include "sntp/sntp_troubles.h"

// The exchange the client thread calls; tests replace it to run the schedule in virtual time.
typedef SntpResult (*SntpExchangeFunction)(const char* server, int32_t timeoutMs, NtpTimestamp* time,
                                           NtpTimestamp* delay, uint32_t* stratum);
void SetSntpExchanger(SntpExchangeFunction exchanger);  // null restores SntpExchange

// The UDP port the server thread binds when it starts: SNTP_PORT, except in tests.
extern std::atomic<uint16_t> sntpServerPort;

// The clock the server thread stamps answers with (receive and transmit): NtpNow, except in tests
// that tell the stamps of one batch apart. Null restores NtpNow.
typedef void (*SntpServerClock)(uint8_t* out);
void SetSntpServerClock(SntpServerClock clock);

// 1 while the controller has a time thread started and not yet joined.
int32_t TimeThreadRunning();
