// The simulator's entry: one machine running the service for years of simulated time, in one
// thread, replayable from its seed.
//   NorvikSim [years] [seed] [--from YYYY-MM-DD] [--until YYYY-MM-DD] [--request-interval SECONDS]
// years (default 1): from 2026-12-01 (or --from) for that many years; whole years run on to the
// next 1 January, so 10 ends on 2037-01-01. Without a seed one is drawn and printed. Exit 0 when
// every promise held, 1 with the seed, the date and the last events when one broke, 2 for a
// command line it cannot read.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "sim/journal.h"
#include "sim/oracle.h"
#include "sim/scheduler.h"
#include "sim/world.h"

namespace {
const int64_t DEFAULT_FROM = 1796083200;  // 2026-12-01 00:00:00 UTC
const double DAYS_PER_YEAR = 365.2425;
const double DEFAULT_REQUEST_INTERVAL_S = 8.0;

char scratchRoot[256] = "";

int64_t ParseDate(const char* text) {
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    if (sscanf(text, "%d-%u-%u", &year, &month, &day) != 3 || month < 1 || month > 12 || day < 1 || day > 31) {
        return -1;
    }
    int64_t y = year - (month <= 2 ? 1 : 0);
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yearOfEra = static_cast<unsigned>(y - era * 400);
    const unsigned dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return (era * 146097 + static_cast<int64_t>(dayOfEra) - 719468) * 86400;
}

// The next 1 January at or after a time.
int64_t NextNewYear(int64_t unixSeconds) {
    for (int year = 1970; year < 2300; ++year) {
        char text[16];
        snprintf(text, sizeof text, "%d-01-01", year);
        const int64_t at = ParseDate(text);
        if (at >= unixSeconds) {
            return at;
        }
    }
    return unixSeconds;
}

uint64_t DrawSeed() {
    uint64_t seed = 0;
    const int random = open("/dev/urandom", O_RDONLY);
    if (random >= 0) {
        if (read(random, &seed, sizeof seed) != static_cast<ssize_t>(sizeof seed)) {
            seed = 0;
        }
        close(random);
    }
    return seed % 1000000000000ULL;  // short enough to type again
}

void RemoveScratch() {
    RemoveWorldFiles();
    char path[512];
    snprintf(path, sizeof path, "%s/Data/System", scratchRoot);
    rmdir(path);
    snprintf(path, sizeof path, "%s/Data", scratchRoot);
    rmdir(path);
    rmdir(scratchRoot);
}

int Usage() {
    fprintf(stderr, "usage: NorvikSim [years] [seed] [--from YYYY-MM-DD] [--until YYYY-MM-DD] [--request-interval S]\n");
    return 2;
}
}  // namespace

int main(int argc, char** argv) {
    double years = 1.0;
    bool haveSeed = false;
    uint64_t seed = 0;
    RunPlan plan = {DEFAULT_FROM, 0, DEFAULT_REQUEST_INTERVAL_S};
    int positional = 0;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--from") == 0 && i + 1 < argc) {
            plan.fromUnixSeconds = ParseDate(argv[++i]);
        } else if (strcmp(argv[i], "--until") == 0 && i + 1 < argc) {
            plan.untilUnixSeconds = ParseDate(argv[++i]);
        } else if (strcmp(argv[i], "--request-interval") == 0 && i + 1 < argc) {
            plan.requestIntervalSeconds = atof(argv[++i]);
        } else if (positional == 0) {
            years = atof(argv[i]);
            ++positional;
        } else if (positional == 1) {
            seed = strtoull(argv[i], nullptr, 10);
            haveSeed = true;
            ++positional;
        } else {
            return Usage();
        }
    }
    if (plan.fromUnixSeconds < 0 || plan.untilUnixSeconds < 0 || years <= 0 || plan.requestIntervalSeconds <= 0) {
        return Usage();
    }
    if (plan.untilUnixSeconds == 0) {
        plan.untilUnixSeconds = plan.fromUnixSeconds + static_cast<int64_t>(years * DAYS_PER_YEAR * 86400);
        if (years == std::floor(years)) {
            plan.untilUnixSeconds = NextNewYear(plan.untilUnixSeconds);
        }
    }
    if (plan.untilUnixSeconds <= plan.fromUnixSeconds) {
        return Usage();
    }
    if (!haveSeed) {
        seed = DrawSeed();
    }
    simSeed = seed;

    snprintf(scratchRoot, sizeof scratchRoot, "%s/norvik-sim-XXXXXX", access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
    if (mkdtemp(scratchRoot) == nullptr) {
        fprintf(stderr, "cannot make a scratch directory\n");
        return 2;
    }
    failureCleanup = RemoveScratch;

    char from[40];
    char until[40];
    simEpochUnixSeconds = plan.fromUnixSeconds;
    FormatSimDate(0, from, sizeof from);
    FormatSimDate((plan.untilUnixSeconds - plan.fromUnixSeconds) * NS_PER_SECOND, until, sizeof until);
    printf("simulation  seed %" PRIu64 "  from %.10s to %.10s\n", seed, from, until);
    fflush(stdout);

    const auto started = std::chrono::steady_clock::now();
    InitScheduler(seed);
    SetEventHandler(HandleWorldEvent);
    InitWorld(&plan, scratchRoot);
    RunScheduler();
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    RemoveScratch();

    const double days = static_cast<double>(simNow) / static_cast<double>(NS_PER_DAY);
    printf("simulated              %.1f days (%.2f years), every promise held\n", days, days / DAYS_PER_YEAR);
    printf("steps                  %" PRIu64 " (%" PRIu64 " fiber switches, %" PRIu64 " world events)\n", simSteps,
           simSwitches, simEventsRun);
    printf("wall time              %.1f s: %.1f million steps/s, %.0f ns per step\n", seconds,
           static_cast<double>(simSteps) / seconds / 1e6, seconds * 1e9 / static_cast<double>(simSteps));
    printf("world                  %" PRIu64 " client requests (%" PRIu64 " bursts), %" PRIu64
           " exchanges asked of the upstreams, %" PRIu64 " lost, %" PRIu64 " duplicated, %" PRIu64 " delayed\n",
           worldCounts.requests, worldCounts.bursts, worldCounts.exchangesAsked, worldCounts.lost,
           worldCounts.duplicated, worldCounts.delayed);
    uint64_t badModes = 0;
    for (uint32_t mode = UP_WRONG_SIZE; mode < UP_MODE_COUNT; ++mode) {
        badModes += worldCounts.upstreamModes[mode];
    }
    uint64_t settings = 0;
    for (uint64_t count : worldCounts.settings) {
        settings += count;
    }
    printf("faults injected        %" PRIu64 " upstream silences, %" PRIu64 " spells of bad answers, %" PRIu64
           " upstream steps, %" PRIu64 " setting rewrites, %" PRIu64 " controls 128 (%" PRIu64
           " near a restart), %" PRIu64 " other controls, %" PRIu64 " stops (%" PRIu64 " during a restart), %" PRIu64
           " workstation absences, %" PRIu64 " port-123 takeovers, %" PRIu64 " socket-error spells, %" PRIu64
           " resolver spells, %" PRIu64 " spells of refused threads, %" PRIu64 " drift changes\n",
           worldCounts.upstreamModes[UP_SILENT], badModes, worldCounts.upstreamSteps, settings, worldCounts.controls128,
           worldCounts.controls128NearRestart, worldCounts.otherControls, worldCounts.stops, worldCounts.stopsNearRestart,
           worldCounts.workstationDown, worldCounts.portHeld, worldCounts.socketErrorSpells, worldCounts.resolverSpells,
           worldCounts.threadRefusalSpells, worldCounts.driftChanges);
    PrintOracleSummary();
    printf("digest                 %016" PRIx64 "  (equal for every run of seed %" PRIu64 " and span)\n", simDigest,
           seed);
    printf("seed                   %" PRIu64 "\n", seed);
    return 0;
}
