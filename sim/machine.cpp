// The machine's clocks.
#include "sim/machine.h"

ClockModel systemClock = {0, 0, 0};
uint32_t tickAtStartMs = 0;
SimTime timerPhase = 0;

namespace {
const int64_t PPB = 1000000000;
const uint64_t NTP_UNIX_OFFSET = 2208988800ULL;  // seconds from 1900 to 1970

int64_t DriftOf(int64_t elapsed, int64_t driftPpb) {
    return static_cast<int64_t>(static_cast<__int128>(elapsed) * driftPpb / PPB);
}

int64_t FloorDivide(int64_t value, int64_t divisor) {
    const int64_t quotient = value / divisor;
    return (value % divisor != 0 && (value < 0) != (divisor < 0)) ? quotient - 1 : quotient;
}

// The timer's interrupts from the first, at or before simNow 0, to the last at or before a time.
int64_t InterruptsBy(SimTime at) { return (at + timerPhase) / TIMER_TICK; }
}  // namespace

int64_t ReadClockModel(const ClockModel* clock, SimTime at) {
    const int64_t elapsed = at - clock->baseAt;
    return clock->baseUnixNs + elapsed + DriftOf(elapsed, clock->driftPpb);
}

void SetClockModel(ClockModel* clock, int64_t unixNs, SimTime at) {
    clock->baseUnixNs = unixNs;
    clock->baseAt = at;
}

void SetClockDrift(ClockModel* clock, int64_t driftPpb, SimTime at) {
    clock->baseUnixNs = ReadClockModel(clock, at);
    clock->baseAt = at;
    clock->driftPpb = driftPpb;
}

// Both counters count from the first interrupt, as Windows counts both from its start.
uint32_t MachineTickCount() {
    const int64_t elapsedMs = InterruptsBy(simNow) * TIMER_TICK / NS_PER_MS;
    return static_cast<uint32_t>(tickAtStartMs + static_cast<uint64_t>(elapsedMs));
}

uint64_t MachinePreciseTickUs() {
    return static_cast<uint64_t>(tickAtStartMs) * 1000u + static_cast<uint64_t>((simNow + timerPhase) / NS_PER_US);
}

int64_t UnixNsToFileTime(int64_t unixNs) {
    return FILETIME_UNIX_EPOCH + FloorDivide(unixNs, NS_PER_FILETIME_TICK);
}

int64_t FileTimeToUnixNs(int64_t fileTime) { return (fileTime - FILETIME_UNIX_EPOCH) * NS_PER_FILETIME_TICK; }

int64_t MachineFileTime() {
    const int64_t unixMs = FloorDivide(ReadClockModel(&systemClock, simNow), NS_PER_MS);
    return FILETIME_UNIX_EPOCH + unixMs * (NS_PER_MS / NS_PER_FILETIME_TICK);
}

int64_t MachineWallSeconds() { return FloorDivide(ReadClockModel(&systemClock, simNow), NS_PER_SECOND); }

SimTime WaitDuration(uint32_t milliseconds) {
    if (milliseconds == 0) {
        return 0;
    }
    const SimTime due = simNow + static_cast<SimTime>(milliseconds) * NS_PER_MS;
    return (InterruptsBy(due) + 1) * TIMER_TICK - timerPhase - simNow;
}

uint64_t NtpStampOf(int64_t unixNs) {
    const int64_t seconds = FloorDivide(unixNs, NS_PER_SECOND);
    const uint64_t rest = static_cast<uint64_t>(unixNs - seconds * NS_PER_SECOND);
    const uint64_t ntpSeconds = static_cast<uint64_t>(seconds) + NTP_UNIX_OFFSET;
    return (ntpSeconds << 32) | ((rest << 32) / static_cast<uint64_t>(NS_PER_SECOND));
}
