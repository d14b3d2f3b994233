// NTP arithmetic: the anchors, the round trip through the clock, the tick stamp and the estimate.
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "runtime/platform.h"
#include "sntp/ntp_time.h"
#include "tests/support/civil_time.h"
#include "tests/support/virtual_time.h"

namespace {
const int64_t FILETIME_1900 = 94354848000000000LL;
const int64_t FILETIME_2000 = 125911584000000000LL;
const uint64_t T3 = 3900000000ULL << 32;

struct NtpTime : testing::Test {
    void SetUp() override { NtpInitEpoch(); }
    void TearDown() override { RemoveVirtualTime(); }
};

NtpTimestamp Compute(uint64_t t1, uint64_t t2, uint64_t t3, uint64_t t4, NtpTimestamp* delay, NtpTimestamp time = 0) {
    uint8_t packet[48] = {}, destination[8];  // an answer carrying t1, t2, t3, and the local tick stamp t4
    StoreBigEndian64(packet + NTP_ORIGINATE_OFFSET, t1), StoreBigEndian64(packet + NTP_RECEIVE_OFFSET, t2);
    StoreBigEndian64(packet + NTP_TRANSMIT_OFFSET, t3), StoreBigEndian64(destination, t4);
    return NtpComputeTime(&time, destination, packet, delay), time;
}
}  // namespace

TEST_F(NtpTime, FileTimeAnchorsGiveTheirStamps) {
    EXPECT_EQ(0u, FileTimeToNtp(FILETIME_1900));
    EXPECT_EQ(0xBC17C20000000000ULL, FileTimeToNtp(FILETIME_2000));
    EXPECT_EQ(2208988800ULL << 32, FileTimeToNtp(UNIX_EPOCH_FILETIME));
}

// The seconds wrap on 2036-02-07 06:28:16; the top bit of a stamp names its era.
struct EraRow {
    const char* label;
    NtpTimestamp stamp;
    int64_t fileTime;
};

const EraRow ERA_ROWS[] = {
    {"1968, the first second with the top bit set", 0x80000000ULL << 32, FileTimeOf(1968, 1, 20, 3, 14, 8)},
    {"2000, the first era", 0xBC17C20000000000ULL, FILETIME_2000},
    {"today", 0xEEB0A380ULL << 32, FileTimeOf(2026, 11, 25)},
    {"the last second before the wrap", 0xFFFFFFFFULL << 32, FileTimeOf(2036, 2, 7, 6, 28, 15)},
    {"the wrap itself", 0, FileTimeOf(2036, 2, 7, 6, 28, 16)},
    {"the first second after the wrap", 1ULL << 32, FileTimeOf(2036, 2, 7, 6, 28, 17)},
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

// Whole-millisecond FILETIMEs (all the platform clock gives) over both eras, 1968 to 2104.
TEST_F(NtpTime, ARoundTripThroughAStampKeepsTheMillisecondOrLandsOneEarlier) {
    const int64_t first = FileTimeOf(1968, 1, 20, 3, 14, 8);
    const int64_t last = FileTimeOf(2104, 2, 26, 9, 42, 23);
    std::mt19937_64 random(20261122);  // fixed seed: a failure replays
    std::uniform_int_distribution<int64_t> span(0, (last - first) / FILETIME_TICKS_PER_MS);
    int earlier = 0;
    int wrong = 0;
    for (int i = 0; i < 200000; ++i) {
        const int64_t fileTime = first + span(random) * FILETIME_TICKS_PER_MS;
        const NtpTimestamp stamp = FileTimeToNtp(fileTime);
        const int64_t back = NtpToFileTime(stamp);  // past 2^52 the double rounds, 4 ticks either side
        const bool near = (stamp & 3u) == 0 && back - fileTime <= 4 && fileTime - back <= 4;
        if (!near && wrong++ == 0) {
            ADD_FAILURE() << "FILETIME " << fileTime << " came back as " << back;
        }
        earlier += back < fileTime ? 1 : 0;
    }
    EXPECT_EQ(0, wrong);
    EXPECT_GT(earlier, 200000 / 100) << "a few per cent land 1 ms early";
    EXPECT_LT(earlier, 200000 / 8) << "a few per cent land 1 ms early";
}

TEST_F(NtpTime, TheClockAndTheTickStampThroughTheDriverAndTheEstimateFromFourStamps) {
    InstallVirtualTime(FILETIME_2000 + 5000000, 1500);  // half a second past 2000-01-01; 1.5 s of ticks
    uint8_t stamp[8];
    const uint8_t now[8] = {0xBC, 0x17, 0xC2, 0x00, 0x80, 0x00, 0x00, 0x00}, tick[8] = {0, 0, 0, 1, 0x80, 0, 0, 0};
    EXPECT_EQ(0, std::memcmp(now, (NtpNow(stamp), stamp), 8));
    EXPECT_EQ(0, std::memcmp(tick, (NtpTickStamp(stamp), stamp), 8));
    const NtpTimestamp value = FileTimeToNtp(FILETIME_2000 + 12340000);
    NtpSetSystemClock(value), NtpSetSystemClock(value | 3u);  // the two lowest bits are ignored
    EXPECT_EQ(std::vector<int64_t>(2, FILETIME_2000 + 12340000), RecordedClockSettings());

    EXPECT_EQ(0x0000000100000000ULL, TickToNtp(1000));
    // One millisecond before the 32-bit count wraps, then two later: 1 ms past the wrap.
    InstallVirtualTime(VIRTUAL_START_FILETIME, 0xFFFFFFFFu);
    const uint64_t before = ReadStampTick();
    EXPECT_EQ(0u, StampTicksSince(before));
    AdvanceVirtualTime(2);
    EXPECT_EQ(2000u, StampTicksSince(before));
    EXPECT_EQ(4294967u, LoadBigEndian64((NtpTickStamp(stamp), stamp)));  // 1 ms

    // Half the round trip added, never a negative one: 10 ms of client ticks, 2 ms of them held by the server.
    NtpTimestamp delay = 0;
    const NtpTimestamp time = Compute(10ULL << 32, T3, T3 + 8589934, (10ULL << 32) + 42949672, &delay);
    EXPECT_EQ(34359738u, delay);
    EXPECT_EQ(T3 + 8589934 + 17179869, time);

    // The tick counter wrapped between request and answer: T4 - T1 reads as negative.
    EXPECT_EQ(T3, Compute(TickToNtp(0xFFFFFFF0u), T3, T3, TickToNtp(5), nullptr));
    // The server claims to have held the request longer than the whole round trip took.
    delay = 99;
    EXPECT_EQ(T3, Compute(10ULL << 32, T3 - (1ULL << 32), T3, (10ULL << 32) + (1ULL << 31), &delay));
    EXPECT_EQ(0u, delay);
}
