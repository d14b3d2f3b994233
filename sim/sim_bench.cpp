// The simulator's cost per step, measured and printed (never asserted): a bare fcontext switch,
// a scheduler step that keeps the same fiber (the host's pulse while nothing else is due), a
// step that switches fibers, and a world event. The array holds as many sleeping fibers as a
// running service has, so the scan costs what it costs in a run. Also one reading of the setting
// file through the configuration store, as the host does every minute: on a real file system
// (tmpfs and /tmp), which decides whether the simulator needs a simulated one.
//   NorvikSimBench [millions of iterations, default 20]
#include <boost/context/detail/fcontext.hpp>
#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "config/config_file.h"
#include "sim/journal.h"
#include "sim/scheduler.h"

using boost::context::detail::fcontext_t;
using boost::context::detail::jump_fcontext;
using boost::context::detail::make_fcontext;
using boost::context::detail::transfer_t;

namespace {
const SimTime PULSE = 100 * NS_PER_MS;
const size_t RAW_STACK_BYTES = 64 * 1024;

uint64_t iterations = 0;
uint64_t eventsSeen = 0;

double SecondsSince(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Bare switches: a fiber that jumps straight back, twice per iteration.
void Echo(transfer_t from) {
    for (;;) {
        from = jump_fcontext(from.fctx, nullptr);
    }
}

double MeasureRawSwitch() {
    static char stack[RAW_STACK_BYTES];
    transfer_t other{make_fcontext(stack + RAW_STACK_BYTES, RAW_STACK_BYTES, Echo), nullptr};
    const auto start = std::chrono::steady_clock::now();
    for (uint64_t i = 0; i < iterations; ++i) {
        other = jump_fcontext(other.fctx, nullptr);
    }
    return SecondsSince(start) * 1e9 / static_cast<double>(2 * iterations);
}

// Sleeps a long time: the rest of a running service (ageing thread, time thread, dispatcher).
uint32_t Idle(uint64_t) {
    for (;;) {
        SleepFiber(NS_PER_DAY);
    }
}

uint32_t Pulse(uint64_t offset) {
    SleepFiber(static_cast<SimTime>(offset));
    for (uint64_t i = 0; i < iterations; ++i) {
        SleepFiber(PULSE);
    }
    EndRun();
    for (;;) {
        SleepFiber(NS_PER_DAY);
    }
}

void CountEvent(const SimEvent& event) {
    ++eventsSeen;
    if (eventsSeen < iterations) {
        ScheduleEvent(event.at + PULSE, 0, 0, 0);
    } else {
        EndRun();
    }
}

// One scheduler run with the given fibers; seconds per iteration.
double MeasureRun(uint32_t pulsing, bool withEvents) {
    InitScheduler(1);
    SetEventHandler(CountEvent);
    eventsSeen = 0;
    for (uint32_t i = 0; i < 3; ++i) {
        StartFiber(Idle, 0, ROLE_OTHER, 0);
    }
    for (uint32_t i = 0; i < pulsing; ++i) {
        StartFiber(Pulse, i * PULSE / 2, ROLE_HOST, 0);
    }
    if (withEvents) {
        ScheduleEvent(0, 0, 0, 0);
    }
    const auto start = std::chrono::steady_clock::now();
    RunScheduler();
    const double seconds = SecondsSince(start);
    return seconds * 1e9 / static_cast<double>(iterations * (pulsing > 0 ? pulsing : 1));
}
// Reads SNTP_IP from a setting file in directory as the controller does, reads times; us each.
double MeasureSettingReads(const char* directory, uint32_t reads) {
    char path[256];
    snprintf(path, sizeof path, "%s/norvik-bench-%d.dat", directory, static_cast<int>(getpid()));
    FILE* file = fopen(path, "w");
    if (file == nullptr) {
        return -1;
    }
    fputs("# Vantor platform settings\nNODE_NAME CONTROLWS\nSNTP_IP 127.0.0.2\nLOG_LEVEL 2\n", file);
    fclose(file);
    char value[256];
    const auto start = std::chrono::steady_clock::now();
    for (uint32_t i = 0; i < reads; ++i) {
        ConfigFile store;
        OpenConfigFile(&store, path);
        GetConfigString(&store, "SNTP_IP", value, sizeof value, "");
        CloseConfigFile(&store);
    }
    const double seconds = SecondsSince(start);
    unlink(path);
    return strcmp(value, "127.0.0.2") == 0 ? seconds * 1e6 / reads : -1;
}
}  // namespace

int main(int argc, char** argv) {
    iterations = static_cast<uint64_t>(argc > 1 ? atof(argv[1]) * 1e6 : 20e6);
    printf("simulator step costs, %" PRIu64 " iterations each\n", iterations);
    const double raw = MeasureRawSwitch();
    printf("  fcontext switch (one jump)                      %6.1f ns\n", raw);
    const double keep = MeasureRun(1, false);
    printf("  step keeping the fiber (100 ms pulse alone)     %6.1f ns\n", keep);
    const double swap = MeasureRun(2, false);
    printf("  step switching fibers (two pulses interleaved)  %6.1f ns\n", swap);
    const double event = MeasureRun(0, true);
    printf("  world event (heap pop, handler, heap push)      %6.1f ns\n", event);
    const uint32_t reads = 100000;
    printf("  setting file read, tmpfs (/dev/shm)             %6.2f us\n", MeasureSettingReads("/dev/shm", reads));
    printf("  setting file read, /tmp                         %6.2f us\n", MeasureSettingReads("/tmp", reads));
    return 0;
}
