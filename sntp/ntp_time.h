// NTP time arithmetic: the 32.32 timestamp, the system clock read and set as one, the tick
// stamp that times an exchange, and the estimate of true time from the four stamps of an answer.
//
//   0                   1                   2                   3
//   0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1 2 3 4 5 6 7 8 9 0 1
//  +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//  |             seconds since 1900-01-01 00:00:00 UTC             |
//  +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//  |              fraction of a second, units of 2^-32 s            |
//  +-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+-+
//
// Big-endian inside packets and in every 8-byte buffer written here; host order in memory.
//
// The 32 bits of seconds wrap on 2036-02-07 06:28:16 UTC. A stamp names its era by its most
// significant bit: set, the seconds count from 1900 (1968 to 2036); clear, from the wrap (2036 to
// 2104). Every conversion of a stamp into a date follows that rule; the local clock is never
// consulted for it.
#pragma once

#include <cstdint>

#include "sntp/sntp_packet.h"

typedef uint64_t NtpTimestamp;

const uint64_t NTP_TO_UNIX_SECONDS = 2208988800ULL;  // 1900-01-01 to 1970-01-01

// Written once by NtpInitEpoch, read everywhere after.
extern int64_t ntpEpochFileTime;    // 1900-01-01 as a FILETIME: 94354848000000000
extern uint64_t ntpToUnixSeconds;   // 2208988800 s from 1900 to 1970

void NtpInitEpoch();

// System clock (UTC) to a big-endian stamp in out[0..7]; its two lowest fraction bits are zero.
void NtpNow(uint8_t* out);
// Sets the system clock to a host-order stamp; the two lowest fraction bits are ignored.
void NtpSetSystemClock(NtpTimestamp value);
// The time since system start as a big-endian 32.32 stamp, to the microsecond (the platform's
// fine monotonic counter, not the coarse tick count), wrapping as the 32-bit millisecond tick
// count does (every 2^32 ms), so the first byte is always zero.
void NtpTickStamp(uint8_t* out);
// From T4 (destination, 8 big-endian bytes) and a 48-byte answer: time = T3 + delay / 2 and
// delay = (T4 - T1) - (T3 - T2), never negative. Leaves T1..T3 of the packet in host order.
void NtpComputeTime(NtpTimestamp* time, const uint8_t* destination, uint8_t* packet, NtpTimestamp* delay);
// The one place where a clock observer would attach; called after every read and setting.
void NtpClockHook();

// The pure conversions behind NtpNow and NtpSetSystemClock. A FILETIME after the wrap gives the
// era's stamp (the 64-bit arithmetic wraps with it); a stamp gives its date by the era rule.
NtpTimestamp FileTimeToNtp(int64_t fileTime);
int64_t NtpToFileTime(NtpTimestamp value);
// The whole seconds of a stamp counted from 1900-01-01 by the era rule: 0..2^32-1 for a stamp of
// the first era (most significant bit set), 2^32 and up for one of the second.
int64_t NtpEraSeconds(NtpTimestamp value);
NtpTimestamp TickToNtp(uint32_t tickMs);
NtpTimestamp MicrosToNtp(uint64_t micros);

// The stamp tick behind NtpTickStamp, in microseconds, and the microseconds since an earlier one
// (across its wrap).
const uint64_t STAMP_TICK_PERIOD_US = 4294967296ULL * 1000u;
uint64_t ReadStampTick();
uint64_t StampTicksSince(uint64_t earlier);

uint64_t LoadBigEndian64(const uint8_t* bytes);
void StoreBigEndian64(uint8_t* bytes, uint64_t value);
