// The SNTP controller: reads SNTP_IP from Vantor.dat in the data directory, chooses the role
// (server for an empty setting, 0.0.0.0 or one of this host's addresses; client otherwise) and
// starts, stops and restarts the time thread, clearing every trouble on stop and restart.
#pragma once

#include <atomic>
#include <cstdint>

// The SNTP_IP text in characters, terminator included: every buffer that holds the setting.
const uint32_t SNTP_SETTING_SIZE = 256;

extern std::atomic<uint8_t> serverRole;  // 1 server, 0 client
extern char sntpServerSetting[SNTP_SETTING_SIZE];

// Start, restart and stop may be called from any thread, in any order: each joins the time
// thread it replaces, so at most one runs. A thread that cannot be created leaves none: start
// and restart then return 1 and raise the role's "could not start" trouble.
int32_t StartSntp();
// Stop flag, clear all troubles, 1200 ms, the old thread joined, then StartSntp's steps. The
// service host calls it under controlLock. After StopSntp it does nothing until StartSntp.
int32_t RestartSntp();
// Stop flag, clear all troubles, 1200 ms, the thread joined.
int32_t StopSntp();
// SNTP_IP of <directory>\Vantor.dat into value (SNTP_SETTING_SIZE bytes); a missing file or key
// reads as "".
int32_t ReadSntpIp(char* value, const char* directory);
// Sets SNTP_IP in <directory>\Vantor.dat and saves; the save result (1 if it cannot be opened).
int32_t WriteSntpIp(const char* value, const char* directory);

// The role choice as a pure function of the setting: 1 server, 0 client.
int32_t ChooseServerRole(const char* setting);
