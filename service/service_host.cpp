// The service host's rules: start order, supervision loop, control decisions, stop order.
#include "service/service_host.h"

#include "service/service.h"
#include "sntp/sntp_control.h"

Lock controlLock;

namespace {
// Made before main runs and never deleted: the dispatcher's thread may still hold it while the
// process exits.
struct ControlLockMade {
    ControlLockMade() { InitLock(&controlLock); }
} controlLockMade;

const uint32_t ACCEPTED_WHEN_RUNNING = HOST_ACCEPT_STOP | HOST_ACCEPT_SHUTDOWN;

// The hand-over between the handler on the dispatcher's thread and the service's thread: the
// state in force, the stop signal's life, and every report but the last, all under StatusLock.
// So the handler never signals the stop signal after the shutdown has closed it (the handle
// could name another object by then), and it never answers with a state older than the one the
// manager last heard. The stop stays accepted until the stopped report, so a second stop during
// the shutdown is normal, and the platform's own shutdown may deliver one even later.
uint32_t currentState = HOST_STOPPED;
uint32_t acceptedControls = 0;
bool stopSignalOpen = false;
// Set by the handler's stop as well as the signal: a stop signal that the platform could not
// make never ends a wait, and the loop must still see the stop at its next step.
bool stopAsked = false;

// Lives as long as the process: the dispatcher's thread may still be in the handler while the
// process exits.
Lock* StatusLock() {
    static PermanentLock lock;
    return lock.Get();
}

void Report(const ServiceHostCalls* calls, uint32_t state, uint32_t accepted) {
    LockHold hold(StatusLock());
    currentState = state;
    acceptedControls = accepted;
    calls->reportStatus(state, accepted);
}

// After this report the process may end at any moment. The state changes under the lock, so no
// later answer of the handler reports anything but stopped; the report itself is made outside
// it, as the platform may take its dispatcher's lock to report a stop while that dispatcher
// holds the same lock around the handler (Wine's does both).
void ReportStopped(const ServiceHostCalls* calls) {
    {
        LockHold hold(StatusLock());
        currentState = HOST_STOPPED;
        acceptedControls = 0;
    }
    calls->reportStatus(HOST_STOPPED, 0);
}

void ReportStateInForce(const ServiceHostCalls* calls) {
    LockHold hold(StatusLock());
    calls->reportStatus(currentState, acceptedControls);
}

// Stop and shutdown: stop pending, then the signal, unless the stop has already been reported
// done (answered with it) or the shutdown has closed the signal (its loop has already ended).
void HandleStop(const ServiceHostCalls* calls) {
    LockHold hold(StatusLock());
    if (currentState == HOST_STOPPED) {
        calls->reportStatus(currentState, acceptedControls);
        return;
    }
    currentState = HOST_STOP_PENDING;
    stopAsked = true;
    calls->reportStatus(HOST_STOP_PENDING, acceptedControls);
    if (stopSignalOpen) {
        calls->signalStop();
    }
}

void CreateStopSignal(const ServiceHostCalls* calls) {
    LockHold hold(StatusLock());
    calls->createStopSignal();
    stopSignalOpen = true;
    stopAsked = false;
}

bool StopAsked() {
    LockHold hold(StatusLock());
    return stopAsked;
}

void CloseStopSignal(const ServiceHostCalls* calls) {
    LockHold hold(StatusLock());
    stopSignalOpen = false;
    calls->closeStopSignal();
}

void RestartUnderControlLock(const ServiceHostCalls* calls) {
    LockHold hold(&controlLock);
    calls->restartSntp();
}

void RecheckRole(const ServiceHostCalls* calls, uint32_t* address) {
    char setting[SNTP_SETTING_SIZE] = {0};
    calls->readSetting(setting, SNTP_SETTING_SIZE);
    if (RoleChangeNeeded(setting, address, calls->serverRole()) != 0) {
        RestartUnderControlLock(calls);
    }
}
}  // namespace

void HandleServiceControl(const ServiceHostCalls* calls, uint32_t control) {
    switch (control) {
    case HOST_CONTROL_STOP:
    case HOST_CONTROL_SHUTDOWN:
        HandleStop(calls);
        return;
    case CONTROL_FORCE_RESTART:
        // The whole restart, its 1200 ms pause included, runs before the manager is answered.
        RestartUnderControlLock(calls);
        ReportStateInForce(calls);
        return;
    default:
        // Pause, continue, interrogate and the other user controls: report, change nothing.
        ReportStateInForce(calls);
        return;
    }
}

void RunServiceHost(const ServiceHostCalls* calls) {
    // Made before stop is accepted: a stop that arrives right after "running" is then never lost
    // on a signal that does not exist yet.
    CreateStopSignal(calls);
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
        if (calls->waitForStop(SUPERVISION_STEP_MS) != 0 || StopAsked()) {
            break;
        }
    }

    Report(calls, HOST_STOP_PENDING, ACCEPTED_WHEN_RUNNING);
    CloseStopSignal(calls);
    // The clears that stopping queues are never drained: a trouble that is still true when the
    // service stops must not read as resolved on the operator's workstation.
    calls->stopSntp();
    ReportStopped(calls);
    ReleaseTimer(&recheckTimer);
}
