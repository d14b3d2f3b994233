// The simulator as the service control manager: it starts the service as a fresh process (the
// dispatcher fiber, which runs the control handler, and the service fiber, which runs the host's
// rules through ServiceHostCalls as ServiceMain does), hands it controls one at a time, plays the
// stop event, and ends the process when the host returns.
#pragma once

#include <cstdint>

#include "sim/scheduler.h"

struct ServiceRecord {
    uint32_t starts;
    uint32_t running;        // 1 from the start until the process ended
    uint32_t loopEnded;      // 1 once the supervision loop saw the stop (nothing is drained after)
    uint32_t stopAsked;      // 1 once a stop or shutdown control was sent to this run
    uint32_t state;          // the last state reported
    SimTime startedAt;
    SimTime lastPulse;       // when the supervision loop's last wait ended
    SimTime controlSince;    // when the handler took the control it is running; SIM_NEVER when idle
    uint32_t controlsHandled;
    uint32_t restartsAsked;  // controls 128 handed to the handler
};

extern ServiceRecord service;

// Starts the service when it is not running; 0 when it was started.
int32_t StartService();
// Queues a control for the handler: 0 when the running service will get it, 1 otherwise.
int32_t SendControl(uint32_t control);
