// The SNTP version-3 packet as this system sends and reads it: 48 bytes, multi-byte fields
// big-endian, on UDP port 123. Every reader and writer of a packet (the exchange, the server,
// the tools and the fuzzers) takes the layout from here.
//
//   offset  size  field                          request as sent   answer
//    0      1     leap (7..6) version (5..3)     0x1B              checked (0x1C from a server)
//                 mode (2..0)
//    1      1     stratum                        0                 checked, returned
//    2      1     poll                           0                 echoed by the server
//    3      1     precision                      0                 0xFA from the server
//    4      4     root delay                     0
//    8      4     root dispersion                0
//   12      4     reference id                   0                 "LOCL" from the server
//   16      8     reference timestamp            0
//   24      8     originate timestamp (T1 echo)  0                 must equal the request's transmit
//   32      8     receive timestamp (T2)         0
//   40      8     transmit timestamp (T3)        tick stamp (T1)   must not be zero
#pragma once

#include <cstdint>

const uint16_t SNTP_PORT = 123;
const uint32_t NTP_PACKET_SIZE = 48;
const uint32_t NTP_STAMP_SIZE = 8;

const uint32_t NTP_STRATUM_OFFSET = 1;
const uint32_t NTP_POLL_OFFSET = 2;
const uint32_t NTP_PRECISION_OFFSET = 3;
const uint32_t NTP_REFERENCE_ID_OFFSET = 12;
const uint32_t NTP_REFERENCE_STAMP_OFFSET = 16;
const uint32_t NTP_ORIGINATE_OFFSET = 24;
const uint32_t NTP_RECEIVE_OFFSET = 32;
const uint32_t NTP_TRANSMIT_OFFSET = 40;

// The stratum byte: 0 says "unspecified" (a kiss-o'-death, or a server not synchronised yet),
// 1 a primary source, one that serves its own reference clock.
const uint8_t NTP_STRATUM_UNSPECIFIED = 0;
const uint8_t NTP_STRATUM_PRIMARY = 1;

// The first byte.
const uint8_t NTP_MODE_MASK = 0x07;
const uint8_t NTP_MODE_SYMMETRIC_ACTIVE = 1;
const uint8_t NTP_MODE_CLIENT = 3;
const uint8_t NTP_MODE_SERVER = 4;
const uint8_t NTP_VERSION_MASK = 0x38;
const uint8_t NTP_VERSION_3 = 0x18;   // version 3 in bits 5..3
const uint8_t NTP_LEAP_MASK = 0xC0;
const uint8_t NTP_LEAP_ALARM = 0xC0;  // leap indicator 3: the clock is not synchronised

const uint8_t SNTP_CLIENT_REQUEST = 0x1B;   // leap 0, version 3, mode 3 (client)
const uint8_t SNTP_ANSWER_TO_CLIENT = 0x1C; // leap 0, version 3, mode 4 (server)
const uint8_t SNTP_ANSWER_TO_SYMMETRIC = 0x1A;  // leap 0, version 3, mode 2 (symmetric passive)
