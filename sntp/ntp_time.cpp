// NTP time arithmetic. Every conversion is integer and double arithmetic on constants that
// NtpInitEpoch sets once; FILETIME and SYSTEMTIME appear only behind the platform driver.
#include "sntp/ntp_time.h"

#include <cmath>
#include <cstring>

#include "runtime/platform.h"
#include "runtime/runtime.h"

int64_t ntpEpochFileTime = 0;
uint64_t ntpToUnixSeconds = 0;

namespace {
const uint64_t US_PER_SECOND = 1000000;
double ntpUnitsPerTick = 0.0;  // 2^32 / 10^7 fraction units per 100 ns tick, set by NtpInitEpoch
const double TWO_POW_63 = 9223372036854775808.0;
const uint64_t ERA_SECONDS = 1ULL << 32;               // 136 years: 1900-01-01 to 2036-02-07 06:28:16
const uint64_t FIRST_ERA_BIT = 1ULL << 63;             // seconds' top bit: set from 1968 to 2036
const uint64_t FILETIME_TICKS_PER_SECOND = 10000000;   // 100 ns ticks
const uint64_t ERA_TICKS = ERA_SECONDS * FILETIME_TICKS_PER_SECOND;
const double TWO_POW_64 = 18446744073709551616.0;

// Truncation of a non-negative double to unsigned 64 bits through the signed conversion.
uint64_t TruncateToUnsigned(double value) {
    if (!(value < TWO_POW_64)) {
        value = std::fmod(value, TWO_POW_64);  // beyond any clock; keep the cast defined
    }
    if (value >= TWO_POW_63) {
        return static_cast<uint64_t>(static_cast<int64_t>(value - TWO_POW_63)) + 0x8000000000000000ULL;
    }
    return static_cast<uint64_t>(static_cast<int64_t>(value));
}
}  // namespace

void NtpInitEpoch() {
    ntpEpochFileTime = 94354848000000000LL;  // 109207 days of 100 ns ticks
    ntpUnitsPerTick = 429.4967296;
    ntpToUnixSeconds = NTP_TO_UNIX_SECONDS;
}

uint64_t LoadBigEndian64(const uint8_t* bytes) {
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

void StoreBigEndian64(uint8_t* bytes, uint64_t value) {
    for (int i = 7; i >= 0; --i) {
        bytes[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

NtpTimestamp FileTimeToNtp(int64_t fileTime) {
    // Dividing by 4 before the double multiplication keeps the product far below 2^63; the
    // multiplication by 4 afterwards leaves the two lowest fraction bits zero.
    int64_t sinceEpoch = static_cast<int64_t>(static_cast<uint64_t>(fileTime) - static_cast<uint64_t>(ntpEpochFileTime));
    // After the wrap the stamp counts from the wrap: an era is exactly 2^64 stamp units, so this
    // gives the same stamp as the count from 1900 would modulo 2^64, while the double keeps the
    // precision it has in the first era (counted from 1900 the quarters pass 2^53 there).
    if (sinceEpoch >= static_cast<int64_t>(ERA_TICKS)) {
        sinceEpoch -= static_cast<int64_t>(ERA_TICKS);
    }
    const int64_t quarters = sinceEpoch / 4;
    const double units = static_cast<double>(quarters) * ntpUnitsPerTick;
    uint64_t truncated;
    if (units < 0.0) {
        truncated = static_cast<uint64_t>(static_cast<int64_t>(units));  // before 1900: wraps as unsigned
    } else {
        truncated = TruncateToUnsigned(units);
    }
    return truncated * 4u;
}

int64_t NtpToFileTime(NtpTimestamp value) {
    const uint64_t quarters = value >> 2;
    const uint64_t ticks = TruncateToUnsigned(static_cast<double>(quarters) / ntpUnitsPerTick);
    // A stamp of the second era counts from the wrap, not from 1900: read as 1900 it would set
    // the clock back 136 years at the first synchronisation after 2036-02-07.
    const uint64_t era = (value & FIRST_ERA_BIT) != 0 ? 0 : ERA_TICKS;
    return static_cast<int64_t>(static_cast<uint64_t>(ntpEpochFileTime) + era + 4u * ticks);
}

int64_t NtpEraSeconds(NtpTimestamp value) {
    const uint64_t seconds = value >> 32;
    return static_cast<int64_t>((value & FIRST_ERA_BIT) != 0 ? seconds : seconds + ERA_SECONDS);
}

NtpTimestamp TickToNtp(uint32_t tickMs) {
    return (static_cast<uint64_t>(tickMs) << 32) / MS_PER_SECOND;
}

NtpTimestamp MicrosToNtp(uint64_t micros) {
    const uint64_t seconds = micros / US_PER_SECOND;
    const uint64_t fraction = ((micros % US_PER_SECOND) << 32) / US_PER_SECOND;
    return (seconds << 32) | fraction;
}

uint64_t ReadStampTick() {
    return ReadPreciseTick() % STAMP_TICK_PERIOD_US;
}

uint64_t StampTicksSince(uint64_t earlier) {
    const uint64_t now = ReadStampTick();
    return now >= earlier ? now - earlier : now + STAMP_TICK_PERIOD_US - earlier;
}

void NtpClockHook() {}

void NtpNow(uint8_t* out) {
    StoreBigEndian64(out, FileTimeToNtp(ReadSystemFileTime()));
    NtpClockHook();
}

void NtpSetSystemClock(NtpTimestamp value) {
    WriteSystemFileTime(NtpToFileTime(value));
    NtpClockHook();
}

void NtpTickStamp(uint8_t* out) {
    StoreBigEndian64(out, MicrosToNtp(ReadStampTick()));
}

void NtpComputeTime(NtpTimestamp* time, const uint8_t* destination, uint8_t* packet, NtpTimestamp* delay) {
    // T1 originate (client send, tick stamp)  T2 receive (server)
    // T3 transmit (server)                    T4 destination (client receive, tick stamp)
    const uint64_t t4 = LoadBigEndian64(destination);
    uint64_t values[3];
    const uint32_t offsets[3] = {NTP_ORIGINATE_OFFSET, NTP_RECEIVE_OFFSET, NTP_TRANSMIT_OFFSET};
    for (int i = 0; i < 3; ++i) {
        values[i] = LoadBigEndian64(packet + offsets[i]);
        // The caller's buffer is left holding host-order values; callers must not reuse it.
        std::memcpy(packet + offsets[i], &values[i], sizeof values[i]);
    }
    const uint64_t t1 = values[0];
    const uint64_t t2 = values[1];
    const uint64_t t3 = values[2];
    // delay = T2 - T1 - T3 + T4 = (T4 - T1) - (T3 - T2), in wrap-around arithmetic.
    uint64_t roundTrip = t2 - t1 - t3 + t4;
    if (static_cast<int64_t>(roundTrip) < 0) {
        roundTrip = 0;
    }
    if (delay != nullptr) {
        *delay = roundTrip;
    }
    *time = t3 + (roundTrip >> 1);
}
