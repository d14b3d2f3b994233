// The service control manager's part: process start and end, the control queue, the stop event
// and the calls of ServiceMain (service_main_win32.cpp's, minus registration and the takeover of
// the clock, which have no counterpart here).
#include "sim/service_manager.h"

#include "config/directories.h"
#include "service/service.h"
#include "service/service_host.h"
#include "sim/journal.h"
#include "sim/machine.h"
#include "sim/oracle.h"
#include "sntp/sntp_control.h"
#include "trouble/trouble_queue.h"
#include "trouble/workstation_report.h"

ServiceRecord service = {};

namespace {
const uint32_t CONTROL_QUEUE = 8;

struct StopSignal {
    int32_t exists;
    int32_t signalled;  // auto-reset: a wait that sees it clears it
};

StopSignal stopSignal = {0, 0};
uint32_t controls[CONTROL_QUEUE];
uint32_t controlHead = 0;
uint32_t controlCount = 0;

void ReportStatus(uint32_t state, uint32_t controlsAccepted) {
    service.state = state;
    Journal(J_SERVICE_STATE, state, controlsAccepted);
    OracleStatus(state, controlsAccepted);
}

void CreateStopSignal() {
    stopSignal.exists = 1;
    stopSignal.signalled = 0;
}

void SignalStop() {
    if (stopSignal.exists != 0) {
        stopSignal.signalled = 1;
        WakeFibersOn(&stopSignal);
    }
}

int32_t WaitForStop(uint32_t timeoutMs) {
    OracleLoopPulse(service.lastPulse, timeoutMs);
    if (stopSignal.signalled == 0) {
        WaitFiberOnFor(&stopSignal, WaitDuration(timeoutMs));
    }
    service.lastPulse = simNow;
    if (stopSignal.signalled != 0) {
        stopSignal.signalled = 0;
        service.loopEnded = 1;
        return 1;
    }
    return 0;
}

void CloseStopSignal() { stopSignal.exists = 0; }

void TakeOverClock() {}  // no other time service and no privileges on this machine

void InstallTroubleSink() {
    SetReportCallback(SendWorkstationReport);
    OracleSinkInstalled();
}

void ReadSetting(char* setting, uint32_t) {
    char directory[PATH_CAPACITY];
    GetDataDirectory(directory, PATH_CAPACITY);
    ReadSntpIp(setting, directory);
}

uint8_t ServerRole() { return serverRole.load(); }

const ServiceHostCalls HOST_CALLS = {
    ReportStatus,       CreateStopSignal, SignalStop, WaitForStop, CloseStopSignal, TakeOverClock, InstallTroubleSink,
    DrainTroubles,      ReadSetting,      ServerRole, StartSntp,   RestartSntp,     StopSntp,
};

// ServiceMain after its registration; then the process ends.
uint32_t RunHost(uint64_t) {
    RunServiceHost(&HOST_CALLS);
    // The process exits: what is still queued (the clears of the stop) is lost with it.
    SetReportCallback(nullptr);
    DrainTroubles();
    OracleServiceEnded();
    service.running = 0;
    Journal(J_SERVICE_ENDED, service.starts, 0);
    WakeFibersOn(controls);  // the dispatcher returns
    return 0;
}

// The process's main thread: the dispatcher, which runs the handler for each control in turn.
uint32_t RunDispatcher(uint64_t) {
    while (service.running != 0) {
        if (controlCount == 0) {
            WaitFiberOn(controls, WAIT_OTHER);
            continue;
        }
        const uint32_t control = controls[controlHead];
        controlHead = (controlHead + 1) % CONTROL_QUEUE;
        --controlCount;
        service.controlSince = simNow;
        if (control == CONTROL_FORCE_RESTART) {
            ++service.restartsAsked;
        }
        HandleServiceControl(&HOST_CALLS, control);
        service.controlSince = SIM_NEVER;
        ++service.controlsHandled;
        Journal(J_CONTROL_HANDLED, control, 0);
    }
    return 0;
}
}  // namespace

int32_t StartService() {
    if (service.running != 0) {
        return 1;
    }
    ++service.starts;
    service.running = 1;
    service.loopEnded = 0;
    service.stopAsked = 0;
    service.state = HOST_STOPPED;
    service.startedAt = simNow;
    service.lastPulse = simNow;
    service.controlSince = SIM_NEVER;
    controlHead = 0;
    controlCount = 0;
    stopSignal.exists = 0;
    stopSignal.signalled = 0;
    Journal(J_SERVICE_START, service.starts, 0);
    OracleServiceStarted();
    if (StartFiber(RunDispatcher, 0, ROLE_DISPATCHER, 0) == nullptr ||
        StartFiber(RunHost, 0, ROLE_HOST, 0) == nullptr) {
        SimFail("no fiber left to start the service");
    }
    return 0;
}

int32_t SendControl(uint32_t control) {
    if (service.running == 0 || service.loopEnded != 0 || controlCount == CONTROL_QUEUE) {
        return 1;
    }
    if (control == HOST_CONTROL_STOP || control == HOST_CONTROL_SHUTDOWN) {
        service.stopAsked = 1;
    }
    controls[(controlHead + controlCount) % CONTROL_QUEUE] = control;
    ++controlCount;
    Journal(J_CONTROL_SENT, control, 0);
    WakeFibersOn(controls);
    return 0;
}
