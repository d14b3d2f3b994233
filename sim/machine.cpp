// The machine's clocks.
#include "sim/machine.h"

ClockModel systemClock = {0, 0, 0};
uint32_t tickAtStartMs = 0;

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

uint32_t MachineTickCount() { return static_cast<uint32_t>(tickAtStartMs + static_cast<uint64_t>(simNow / NS_PER_MS)); }

uint64_t MachinePreciseTickUs() {
    return static_cast<uint64_t>(tickAtStartMs) * 1000u + static_cast<uint64_t>(simNow / NS_PER_US);
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

SimTime SleepDuration(uint32_t milliseconds) {
    return static_cast<SimTime>(milliseconds) * NS_PER_MS + static_cast<SimTime>(SimRandomBelow(SLEEP_LATENCY_MAX));
}

uint64_t NtpStampOf(int64_t unixNs) {
    const int64_t seconds = FloorDivide(unixNs, NS_PER_SECOND);
    const uint64_t rest = static_cast<uint64_t>(unixNs - seconds * NS_PER_SECOND);
    const uint64_t ntpSeconds = static_cast<uint64_t>(seconds) + NTP_UNIX_OFFSET;
    return (ntpSeconds << 32) | ((rest << 32) / static_cast<uint64_t>(NS_PER_SECOND));
}
