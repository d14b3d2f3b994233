// The SNTP server: answers version-3 client (mode 3) and symmetric-active (mode 1) requests on
// UDP port 123 from the local clock, as stratum 1 with the reference id "LOCL".
#pragma once

#include <atomic>
#include <cstdint>

// The most distinct clients answered within any five seconds.
const uint64_t SNTP_SERVER_PEER_LIMIT = 201;

// What the server names as its reference: its own clock (as this service always starts it), or
// an upstream server that the client synchronised to.
const int32_t SERVER_MODE_LOCAL_CLOCK = 0;
const int32_t SERVER_MODE_UPSTREAM = 1;

extern std::atomic<int32_t> serverMode;        // SERVER_MODE_*
extern std::atomic<uint32_t> upstreamAddress;  // reference id in mode 1, network order

// Thread entry: argument is the upstream address (0 for none). Returns 0 when stopped.
uint32_t SntpServerThread(uint64_t upstream);

// The answer to one received datagram, as a pure function: 1 and the 48-byte answer (its
// receive stamp taken from receiveStamp, its transmit stamp left for the caller), or 0 when the
// datagram is to be dropped.
int32_t BuildSntpAnswer(const uint8_t* request, int32_t length, const uint8_t* receiveStamp, uint8_t* answer);
