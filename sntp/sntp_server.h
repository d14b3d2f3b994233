// The SNTP server: answers version-3 client (mode 3) and symmetric-active (mode 1) requests on
// UDP port 123 from the local clock, as stratum 1 with the reference id "LOCL".
#pragma once

#include <atomic>
#include <cstdint>

// The most distinct clients answered within any five seconds.
const uint64_t SNTP_SERVER_PEER_LIMIT = 201;

extern std::atomic<int32_t> serverMode;        // 0: the local clock is the reference
extern std::atomic<uint32_t> upstreamAddress;  // reference id in mode 1, network order

// Thread entry: argument is the upstream address (0 for none). Returns 0 when stopped.
uint32_t SntpServerThread(uint64_t upstream);

// The answer to one received datagram, as a pure function: 1 and the 48-byte answer (its
// receive stamp taken from receiveStamp, its transmit stamp left for the caller), or 0 when the
// datagram is to be dropped.
int32_t BuildSntpAnswer(const uint8_t* request, int32_t length, const uint8_t* receiveStamp, uint8_t* answer);
