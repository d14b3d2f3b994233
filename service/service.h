// The service host: the executable's command words, ServiceMain with its supervision loop, the
// control handler, and the takeover of the clock from the Windows Time service.
#pragma once

#include <cstdint>

#include "runtime/runtime.h"

// Name and display name of the service, its handler registration and its dispatcher entry.
#define NORVIK_SERVICE_NAME "Norvik Time Service"

const uint32_t RECHECK_INTERVAL_MS = 60000;  // how often the configured role is compared
const uint32_t SUPERVISION_STEP_MS = 100;    // troubles reach the workstation within this
const uint32_t CONTROL_FORCE_RESTART = 128;  // user-defined control: restart synchronisation

// What the first command-line arguments ask for.
enum CommandAction {
    COMMAND_DISPATCH = 0,   // no command word: run as the service
    COMMAND_INSTALL,
    COMMAND_UNINSTALL,
    COMMAND_STOP_WTS,
    COMMAND_SEND_CONTROL,
};

// Case-insensitive comparison of two texts, 0 when equal (lstrcmpiA on Windows).
typedef int (*CompareText)(const char* a, const char* b);

// install, uninstall and stopWTS are tested (with two or more arguments) in that order; only
// then, with three or more, command. Everything else dispatches.
CommandAction ChooseCommand(int argc, const char* const* argv, CompareText compare);
// 1 for the control numbers a command may send (128..255), else 0.
int32_t ControlNumberAllowed(int32_t number);
// The supervision loop's re-check: parses setting into *address (an unparsable or empty text
// keeps the address in force), then 1 when "is this host" differs from the running role.
int32_t RoleChangeNeeded(const char* setting, uint32_t* address, uint8_t serverRole);

// printf to standard output with no added newline, flushed at once.
void ConsolePrint(const char* format, ...);

// Serialises every restart of synchronisation; made before main runs.
extern Lock controlLock;

void InstallService();
void UninstallService();
void SendServiceCommand(int32_t number);
// Enables the right to set the clock in the process's token.
void EnableSystemTimePrivilege();
// Stops and disables W32Time unless its Start value already says disabled.
void DisableWindowsTimeService();
// Hands ServiceMain to the service control dispatcher and returns when the service has stopped.
void RunServiceDispatcher();
