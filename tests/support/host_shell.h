// Shell scripts on the Linux host that runs the tests, started from a native test binary or
// from one under Wine alike: Wine's CreateProcess starts a Unix program directly but gives no
// handle to wait on, so every script runs detached and reports its end through a file.
// For test peers only (chrony); every script is bounded by its own time limit.
#pragma once

#include <cstdint>
#include <string>

// A fresh scratch directory under /tmp on the host; its host path, or "" on failure.
std::string MakeHostScratch(const char* tag);
void RemoveHostScratch(const std::string& hostPath);
// The name under which this process opens a host path ("Z:\..." under Wine).
std::string LocalPathOf(const std::string& hostPath);
bool HostFileExists(const std::string& hostPath);
bool WriteHostFile(const std::string& hostPath, const std::string& contents);
std::string ReadHostFile(const std::string& hostPath);

// Starts `sh <scratch>/<name>.sh` in the background, its output in <name>.out.
bool StartHostScript(const std::string& scratch, const char* name, const std::string& script);
// Runs the script and waits up to timeoutMs: its exit status, or -1 when it could not start or
// did not end in time. Its standard output and error into output when given.
int32_t RunHostScript(const std::string& scratch, const char* name, const std::string& script, uint32_t timeoutMs,
                      std::string* output);

// The platform twin: starts /bin/sh with the script's host path, detached. True when started.
bool LaunchHostShell(const std::string& scriptHostPath);
uint32_t CurrentProcessNumber();
