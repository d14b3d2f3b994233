// The service host's rules: start order, supervision loop, control decisions, stop order.
#include "service/service_host.h"

#include <atomic>

#include "service/service.h"

Lock controlLock;

namespace {
// Made before main runs and never deleted: the dispatcher's thread may still hold it while the
// process exits.
struct ControlLockMade {
    ControlLockMade() { InitLock(&controlLock); }
} controlLockMade;

const uint32_t ACCEPTED_WHEN_RUNNING = HOST_ACCEPT_STOP | HOST_ACCEPT_SHUTDOWN;
const uint32_t SETTING_CAPACITY = 256;

// Written by the service's thread, read by the handler on the dispatcher's thread: the handler
// answers every control with the state in force.
std::atomic<uint32_t> currentState{HOST_STOPPED};
std::atomic<uint32_t> acceptedControls{0};

void Report(const ServiceHostCalls* calls, uint32_t state, uint32_t accepted) {
    currentState.store(state);
    acceptedControls.store(accepted);
    calls->reportStatus(state, accepted);
}

void RestartUnderControlLock(const ServiceHostCalls* calls) {
    LockHold hold(&controlLock);
    calls->restartSntp();
}

void RecheckRole(const ServiceHostCalls* calls, uint32_t* address) {
    char setting[SETTING_CAPACITY] = {0};
    calls->readSetting(setting, SETTING_CAPACITY);
    if (RoleChangeNeeded(setting, address, calls->serverRole()) != 0) {
        RestartUnderControlLock(calls);
    }
}
}  // namespace

void HandleServiceControl(const ServiceHostCalls* calls, uint32_t control) {
    switch (control) {
    case HOST_CONTROL_STOP:
    case HOST_CONTROL_SHUTDOWN:
        Report(calls, HOST_STOP_PENDING, acceptedControls.load());
        calls->signalStop();
        return;
    case CONTROL_FORCE_RESTART:
        // The whole restart, its 1200 ms pause included, runs before the manager is answered.
        RestartUnderControlLock(calls);
        calls->reportStatus(currentState.load(), acceptedControls.load());
        return;
    default:
        // Pause, continue, interrogate and the other user controls: report, change nothing.
        calls->reportStatus(currentState.load(), acceptedControls.load());
        return;
    }
}

void RunServiceHost(const ServiceHostCalls* calls) {
    // Made before stop is accepted: a stop that arrives right after "running" is then never lost
    // on a signal that does not exist yet.
    calls->createStopSignal();
    Report(calls, HOST_START_PENDING, 0);
    // Running is reported before any of the service's own work, so that the manager never waits
    // on the takeover of the clock or on the first reading of the setting.
    Report(calls, HOST_RUNNING, ACCEPTED_WHEN_RUNNING);

    calls->takeOverClock();
    calls->installTroubleSink();
    calls->startSntp();
    TickTimer recheckTimer;
    StartTimer(&recheckTimer, RECHECK_INTERVAL_MS);

    // 0.0.0.0 is never this host's, so until a setting parses every re-check sees a change.
    uint32_t address = 0;
    for (;;) {
        calls->drainTroubles();
        if (TimerExpired(&recheckTimer)) {
            RecheckRole(calls, &address);
            RestartTimer(&recheckTimer);
        }
        if (calls->waitForStop(SUPERVISION_STEP_MS) != 0) {
            break;
        }
    }

    Report(calls, HOST_STOP_PENDING, ACCEPTED_WHEN_RUNNING);
    calls->closeStopSignal();
    // The clears that stopping queues are never drained: a trouble that is still true when the
    // service stops must not read as resolved on the operator's workstation.
    calls->stopSntp();
    Report(calls, HOST_STOPPED, 0);
    ReleaseTimer(&recheckTimer);
}
