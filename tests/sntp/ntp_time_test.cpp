// NTP arithmetic: eras, the tick stamp and the estimate.
#include <gtest/gtest.h>

#include "sntp/ntp_time.h"
#include "tests/support/civil_time.h"
#include "tests/support/virtual_time.h"

namespace {
const int64_t FILETIME_1900 = 94354848000000000LL;
const uint64_t T3 = 3900000000ULL << 32;

struct NtpTime : testing::Test {
    void SetUp() override { NtpInitEpoch(); }
};

}  // namespace

// The seconds wrap on 2036-02-07 06:28:16; the top bit of a stamp names its era.
struct EraRow {
    const char* label;
    NtpTimestamp stamp;
    int64_t fileTime;
};

const EraRow ERA_ROWS[] = {
    {"1968, the first second with the top bit set", 0x80000000ULL << 32, FileTimeOf(1968, 1, 20, 3, 14, 8)},
    {"the last second before the wrap", 0xFFFFFFFFULL << 32, FileTimeOf(2036, 2, 7, 6, 28, 15)},
    {"the wrap itself", 0, FileTimeOf(2036, 2, 7, 6, 28, 16)},
    {"half a second after the wrap", 0x80000000ULL, FileTimeOf(2036, 2, 7, 6, 28, 16) + 5000000},
    {"2104, the last second of the second era", 0x7FFFFFFFULL << 32, FileTimeOf(2104, 2, 26, 9, 42, 23)},
};

TEST_F(NtpTime, AWireStampGivesTheDateOfItsEra) {
    for (const EraRow& row : ERA_ROWS) {
        EXPECT_EQ(row.fileTime, NtpToFileTime(row.stamp)) << row.label;
    }
}

TEST_F(NtpTime, ADateOfEitherEraGivesItsWireStamp) {
    for (const EraRow& row : ERA_ROWS) {
        EXPECT_EQ(row.stamp, FileTimeToNtp(row.fileTime)) << row.label;
    }
}

TEST_F(NtpTime, EraSecondsCountOnPastTheWrap) {
    for (const EraRow& row : ERA_ROWS) {
        const int64_t secondsSince1900 = (row.fileTime - FILETIME_1900) / 10000000;
        EXPECT_EQ(secondsSince1900, NtpEraSeconds(row.stamp)) << row.label;
    }
}

TEST_F(NtpTime, TickStampIsTheTimeSinceSystemStart) {
    ScopedVirtualTime time(VIRTUAL_START_FILETIME, 1500);
    uint8_t tick[8];
    NtpTickStamp(tick);
    EXPECT_EQ(0x0000000180000000ULL, LoadBigEndian64(tick));  // 1.5 s
}

TEST_F(NtpTime, TickStampWrapsWithTheTickCount) {
    ScopedVirtualTime time(VIRTUAL_START_FILETIME, 0xFFFFFFFFu);
    const uint64_t before = ReadStampTick();
    AdvanceVirtualTime(2);
    uint8_t tick[8];
    NtpTickStamp(tick);
    EXPECT_EQ(2000u, StampTicksSince(before));
    EXPECT_EQ(4294967u, LoadBigEndian64(tick));
}

// A round trip that reads as negative adds nothing.
TEST_F(NtpTime, EstimateIsTheTransmitTimePlusHalfTheRoundTrip) {
    const struct {
        const char* label;
        uint64_t t1, t2, t3, t4;  // t4: the local tick stamp
        NtpTimestamp time, delay;
    } cases[] = {
        {"10 ms of client ticks, 2 ms of them held by the server", 10ULL << 32, T3, T3 + 8589934,
         (10ULL << 32) + 42949672, T3 + 8589934 + 17179869, 34359738},
        {"the tick count wrapped between request and answer", TickToNtp(0xFFFFFFF0u), T3, T3, TickToNtp(5), T3, 0},
        {"the server held it longer than the round trip", 10ULL << 32, T3 - (1ULL << 32), T3,
         (10ULL << 32) + (1ULL << 31), T3, 0},
    };
    for (const auto& c : cases) {
        uint8_t answer[NTP_PACKET_SIZE] = {};
        uint8_t destination[8];
        StoreBigEndian64(answer + NTP_ORIGINATE_OFFSET, c.t1);
        StoreBigEndian64(answer + NTP_RECEIVE_OFFSET, c.t2);
        StoreBigEndian64(answer + NTP_TRANSMIT_OFFSET, c.t3);
        StoreBigEndian64(destination, c.t4);
        NtpTimestamp time = 0;
        NtpTimestamp delay = 99;
        NtpComputeTime(&time, destination, answer, &delay);
        EXPECT_EQ(c.time, time) << c.label;
        EXPECT_EQ(c.delay, delay) << c.label;
    }
}
