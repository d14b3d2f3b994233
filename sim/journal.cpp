// The journal ring, the calendar and the failure report.
#include "sim/journal.h"

#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

uint64_t simSeed = 0;
int64_t simEpochUnixSeconds = 0;
void (*failureCleanup)() = nullptr;

namespace {
const uint32_t RING_SIZE = 64;  // events shown with a failure

struct JournalEntry {
    SimTime at;
    int64_t a;
    int64_t b;
    uint16_t kind;
    uint8_t fiber;
    uint8_t role;
};

JournalEntry ring[RING_SIZE];
uint64_t written = 0;

const char* const KIND_NAMES[J_KIND_COUNT] = {
    "service start (count a)",
    "service state a, accepted b",
    "service ended",
    "control a sent",
    "control a handled",
    "thread of role a started on fiber b",
    "thread of role a ended on fiber b",
    "setting file written: variant a",
    "clock set: error a ns, allowance b ns",
    "exchange ended: expected result a, silences in a row b",
    "report written: code a, state b",
    "report lost (no workstation): code a, state b",
    "workstation listening a",
    "upstream a mode b",
    "upstream a stepped by b ns",
    "system clock drift a ppb",
    "port 123 held by another program: a",
    "socket waits failing: a",
    "bind of port a: result b",
    "request sent by client a, kind b",
    "request read from client a, must admit b (2 either way)",
    "answer sent to client a for request b",
    "burst of a clients",
    "stop flag now a",
    "host name resolution: a",
    "new time threads refused: a",
    "the name service asks to try again: a",
};

const char* const ROLE_NAMES[] = {"main", "host", "dispatcher", "client", "server", "ageing", "other"};

// Days since 1970-01-01 to a civil date (proleptic Gregorian).
void CivilFromDays(int64_t days, int64_t* year, unsigned* month, unsigned* day) {
    days += 719468;
    const int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const unsigned dayOfEra = static_cast<unsigned>(days - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned monthIndex = (5 * dayOfYear + 2) / 153;
    *day = dayOfYear - (153 * monthIndex + 2) / 5 + 1;
    *month = monthIndex < 10 ? monthIndex + 3 : monthIndex - 9;
    *year = static_cast<int64_t>(yearOfEra) + era * 400 + (*month <= 2 ? 1 : 0);
}

void FormatUnixMs(int64_t unixMs, char* out, size_t size) {
    int64_t days = unixMs / 86400000;
    int64_t rest = unixMs % 86400000;
    if (rest < 0) {
        rest += 86400000;
        days -= 1;
    }
    int64_t year = 0;
    unsigned month = 0;
    unsigned day = 0;
    CivilFromDays(days, &year, &month, &day);
    snprintf(out, size, "%04" PRId64 "-%02u-%02u %02d:%02d:%02d.%03d", year, month, day,
             static_cast<int>(rest / 3600000), static_cast<int>(rest / 60000 % 60), static_cast<int>(rest / 1000 % 60),
             static_cast<int>(rest % 1000));
}
}  // namespace

const char* RoleName(uint8_t role) { return ROLE_NAMES[role < 7 ? role : 6]; }

void Journal(uint16_t kind, int64_t a, int64_t b) {
    JournalEntry& entry = ring[written % RING_SIZE];
    entry.at = simNow;
    entry.kind = kind;
    entry.a = a;
    entry.b = b;
    entry.fiber = simCurrent != nullptr ? simCurrent->index : 0;
    entry.role = simCurrent != nullptr ? simCurrent->role : 0;
    ++written;
    DigestValue((static_cast<uint64_t>(kind) << 48) ^ static_cast<uint64_t>(a));
    DigestValue(static_cast<uint64_t>(b));
}

void FormatSimDate(SimTime at, char* out, size_t size) {
    FormatUnixMs(simEpochUnixSeconds * 1000 + at / NS_PER_MS, out, size);
}

void FormatFileTime(int64_t fileTime, char* out, size_t size) {
    const int64_t UNIX_EPOCH_FILETIME_TICKS = 116444736000000000LL;
    FormatUnixMs((fileTime - UNIX_EPOCH_FILETIME_TICKS) / 10000, out, size);
}

void SimFail(const char* format, ...) {
    char date[40];
    FormatSimDate(simNow, date, sizeof date);
    fflush(stdout);
    printf("\nSIMULATION FAILED  seed %" PRIu64 "  at %s (simulated)\n  ", simSeed, date);
    va_list arguments;
    va_start(arguments, format);
    vprintf(format, arguments);
    va_end(arguments);
    printf("\n  last events (oldest first):\n");
    const uint64_t first = written > RING_SIZE ? written - RING_SIZE : 0;
    for (uint64_t i = first; i < written; ++i) {
        const JournalEntry& entry = ring[i % RING_SIZE];
        char when[40];
        FormatSimDate(entry.at, when, sizeof when);
        printf("    %s  [%s %u]  %s  a=%" PRId64 " b=%" PRId64 "\n", when, RoleName(entry.role),
               entry.fiber, KIND_NAMES[entry.kind], entry.a, entry.b);
    }
    printf("  threads:\n");
    static const char* const WAITS[] = {"something", "a lock", "a thread to end"};
    for (uint32_t i = 1; i < SIM_MAX_FIBERS; ++i) {
        const SimFiber& fiber = simFibers[i];
        if (fiber.state == FIBER_UNUSED) {
            continue;
        }
        printf("    %-10s  %s", RoleName(fiber.role), fiber.state == FIBER_ENDED ? "ended, not joined" : "");
        if (fiber.state == FIBER_LIVE && fiber.wakeAt == SIM_NEVER) {
            printf("waits for %s since %.3f s", WAITS[fiber.waitKind < 3 ? fiber.waitKind : 0],
                   static_cast<double>(simNow - fiber.waitingSince) / 1e9);
        } else if (fiber.state == FIBER_LIVE) {
            printf("wakes in %.3f s", static_cast<double>(fiber.wakeAt - simNow) / 1e9);
        }
        printf("\n");
    }
    printf("  replay: scripts/simulate.sh <years> %" PRIu64 " (any span that reaches the date)\n", simSeed);
    fflush(stdout);
    if (failureCleanup != nullptr) {
        failureCleanup();
    }
    _Exit(1);
}
