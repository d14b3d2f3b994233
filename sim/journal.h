// The run's journal: the last events kept in a ring for the failure report, every one of them
// folded into the digest, the simulated calendar, and the failure itself (seed, date, what was
// broken, the last events). Nothing is printed per event.
#pragma once

#include <cstddef>
#include <cstdint>

#include "sim/scheduler.h"

enum JournalKind : uint16_t {
    J_SERVICE_START,      // a = start count
    J_SERVICE_STATE,      // a = reported state, b = accepted controls
    J_SERVICE_ENDED,
    J_CONTROL_SENT,       // a = control
    J_CONTROL_HANDLED,    // a = control
    J_THREAD_START,       // a = role, b = fiber
    J_THREAD_END,         // a = role, b = fiber
    J_SETTING_WRITTEN,    // a = variant
    J_CLOCK_SET,          // a = error in ns, b = asymmetry allowance in ns
    J_EXCHANGE_END,       // a = expected result, b = consecutive silences
    J_REPORT,             // a = code, b = state
    J_REPORT_LOST,        // a = code, b = state
    J_WORKSTATION,        // a = 1 listening, 0 not
    J_UPSTREAM_MODE,      // a = upstream, b = mode
    J_UPSTREAM_STEP,      // a = upstream, b = step in ns
    J_DRIFT,              // a = system clock drift in ppb
    J_PORT_HELD,          // a = 1 held by another program, 0 free
    J_SOCKET_ERRORS,      // a = 1 waits fail, 0 they work
    J_BIND,               // a = port, b = result
    J_REQUEST_SENT,       // a = client, b = kind
    J_REQUEST_READ,       // a = client, b = admitted by the rules (2 either)
    J_ANSWER_SENT,        // a = client, b = request id
    J_BURST,              // a = clients
    J_STOP_FLAG,          // a = new value
    J_RESOLVE,            // a = result
    J_THREADS_REFUSED,    // a = 1 the machine refuses new time threads, 0 it starts them
    J_RESOLVER_SPELL,     // a = 1 the name service asks to try again, 0 it answers
    J_KIND_COUNT,
};

extern uint64_t simSeed;
extern int64_t simEpochUnixSeconds;  // true time at simNow 0
// Run before a failure ends the process (the scratch files go).
extern void (*failureCleanup)();

void Journal(uint16_t kind, int64_t a, int64_t b);
// "client", "server", "ageing", ... for a FiberRole.
const char* RoleName(uint8_t role);

// "2036-02-07 06:28:16.000" for a simulated time.
void FormatSimDate(SimTime at, char* out, size_t size);
// The same for a FILETIME count (100 ns since 1601).
void FormatFileTime(int64_t fileTime, char* out, size_t size);

// Prints the failure with the seed, the date and the last events, and ends the process (1).
[[noreturn]] void SimFail(const char* format, ...) __attribute__((format(printf, 1, 2)));
