// One SNTP version-3 exchange with a time server: the request, the wait for the first answer,
// the checks of that answer in their order, and the estimate of the true time from its stamps.
#pragma once

#include <cstdint>

#include "sntp/ntp_time.h"
#include "sntp/sntp_troubles.h"

// A client socket admits one remote address at a time: the first that answers.
const uint64_t SNTP_CLIENT_PEER_LIMIT = 1;

// One request and answer with server (dotted address or host name) on UDP port 123. 0 and the
// outputs, or the failure code with the outputs untouched. time is the server's transmit time
// plus half the round trip, carried forward to the moment the exchange returns (by the ticks
// since the answer arrived), so that a caller who sets the clock at once sets the server's time.
SntpResult SntpExchange(const char* server, int32_t timeoutMs, NtpTimestamp* time, NtpTimestamp* delay,
                        uint32_t* stratum);

// The checks of one answer, in order: the first failing one decides. request and answer are the
// 48 bytes sent and received; source and port where it came from.
SntpResult CheckSntpAnswer(const uint8_t* request, const uint8_t* answer, uint32_t server, uint32_t source,
                           uint16_t sourcePort);
