// The service's life under the service manager, as rules that need no service manager: the order
// of start and stop, the supervision loop that delivers troubles every 100 ms and re-checks the
// configured role once a minute, and what each control does. The manager's calls and the work the
// host supervises reach it through ServiceHostCalls, so the rules run in virtual time in tests.
#pragma once

#include <cstdint>

// The service manager's numbers for states, controls and accepted controls.
const uint32_t HOST_STOPPED = 1;
const uint32_t HOST_START_PENDING = 2;
const uint32_t HOST_STOP_PENDING = 3;
const uint32_t HOST_RUNNING = 4;
const uint32_t HOST_CONTROL_STOP = 1;
const uint32_t HOST_CONTROL_SHUTDOWN = 5;
const uint32_t HOST_ACCEPT_STOP = 1;
const uint32_t HOST_ACCEPT_SHUTDOWN = 4;

struct ServiceHostCalls {
    // The service manager and the operating system.
    void (*reportStatus)(uint32_t state, uint32_t controlsAccepted);
    void (*createStopSignal)();
    void (*signalStop)();
    // 1 when the stop was signalled within timeoutMs, else 0 (also when the signal could not be
    // made: the wait then still takes its time, and the host sees the stop by its own flag).
    int32_t (*waitForStop)(uint32_t timeoutMs);
    void (*closeStopSignal)();
    // Stops the other time service and enables the right to set the clock.
    void (*takeOverClock)();
    // The work the host supervises.
    void (*installTroubleSink)();
    void (*drainTroubles)();
    // The SNTP_IP setting as it stands in the data directory (empty when unreadable), cut to
    // capacity.
    void (*readSetting)(char* setting, uint32_t capacity);
    uint8_t (*serverRole)();
    int32_t (*startSntp)();
    int32_t (*restartSntp)();
    int32_t (*stopSntp)();
};

// ServiceMain after the handler is registered: returns when the service has stopped.
void RunServiceHost(const ServiceHostCalls* calls);
// The control handler: runs on the dispatcher's thread.
void HandleServiceControl(const ServiceHostCalls* calls, uint32_t control);
