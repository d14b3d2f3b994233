// The SNTP controller: the one setting SNTP_IP, the role it implies, and the start, stop and
// restart of the one time thread. Every stop and restart clears the troubles first.
#include "sntp/sntp_control.h"

#include <cstddef>

#include "config/config_file.h"
#include "config/directories.h"
#include "config/message_texts.h"
#include "net/ipv4.h"
#include "runtime/runtime.h"
#include "sntp/ntp_time.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_server.h"
#include "sntp/sntp_troubles.h"
#include "trouble/trouble_queue.h"

std::atomic<uint8_t> serverRole{1};
int32_t sntpInitialised = 0;
char sntpServerSetting[SNTP_SETTING_SIZE];

namespace {
const char SETTING_KEY[] = "SNTP_IP";
const uint32_t DIRECTORY_COPY_LIMIT = 512;
const uint32_t STOP_GRACE_MS = 1200;  // covers a one-second sleep and a 500 ms wait step

void InitialiseOnce() {
    if (sntpInitialised != 0) {
        return;
    }
    sntpInitialised = 1;
    InitMessageTexts();
    NtpInitEpoch();
    CreateTroubleQueue();
}

// <directory>\Vantor.dat, bounded to a path buffer. The installation's paths are Windows
// paths; off Windows the same path names the file with slashes.
void MakeSettingPath(const char* directory, char* path) {
    // Over-long directories are cut, never rejected: the path always ends in a NUL.
    size_t length = 0;
    for (const char* at = directory != nullptr ? directory : ""; *at != '\0' && length < DIRECTORY_COPY_LIMIT &&
                                                                length + 1 < PATH_CAPACITY;
         ++at) {
        path[length++] = *at;
    }
    for (const char* at = "\\Vantor.dat"; *at != '\0' && length + 1 < PATH_CAPACITY; ++at) {
        path[length++] = *at;
    }
    path[length] = '\0';
#ifndef _WIN32
    for (char* at = path; *at != '\0'; ++at) {
        if (*at == '\\') {
            *at = '/';
        }
    }
#endif
}
}  // namespace

int32_t ReadSntpIp(char* value, const char* directory) {
    char path[PATH_CAPACITY];
    MakeSettingPath(directory, path);
    ConfigFile file;
    if (OpenConfigFile(&file, path) != 0) {
        return 1;
    }
    GetConfigString(&file, SETTING_KEY, value, SNTP_SETTING_SIZE, "");
    CloseConfigFile(&file);
    return 0;
}

int32_t WriteSntpIp(const char* value, const char* directory) {
    char path[PATH_CAPACITY];
    MakeSettingPath(directory, path);
    ConfigFile file;
    if (OpenConfigFile(&file, path) != 0) {
        return 1;
    }
    SetConfigString(&file, SETTING_KEY, value);
    const int32_t saved = SaveConfigFile(&file, path);
    CloseConfigFile(&file);
    return saved;
}

int32_t ChooseServerRole(const char* setting) {
    if (setting == nullptr || setting[0] == '\0') {
        return 1;  // no time server named: this machine is the installation's source
    }
    uint32_t address = 0;
    if (ParseIPv4(setting, &address) != 0) {
        return 0;  // a host name, resolved (or not) by the client at each exchange
    }
    if (IsLocalAddress(&address) != 0) {
        return 1;
    }
    if (address == 0) {
        return 1;  // 0.0.0.0
    }
    return 0;
}

int32_t StartSntp() {
    InitialiseOnce();
    serverRole = 1;
    char directory[PATH_CAPACITY];
    GetDataDirectory(directory, PATH_CAPACITY);
    if (ReadSntpIp(sntpServerSetting, directory) != 0) {
        return 1;
    }
    if (ChooseServerRole(sntpServerSetting) != 0) {
        StartThread(SntpServerThread, 0);
    } else {
        serverRole = 0;
        // The client copies the text before the controller could write it again.
        StartThread(SntpClientThread, static_cast<uint64_t>(reinterpret_cast<uintptr_t>(sntpServerSetting)));
    }
    return 0;
}

int32_t RestartSntp() {
    stopRequested = 1;
    ClearAllSntpTroubles();
    SleepFor(STOP_GRACE_MS);
    return StartSntp();
}

int32_t StopSntp() {
    stopRequested = 1;
    ClearAllSntpTroubles();
    // The thread is not joined: this grace period is the whole of the handshake.
    SleepFor(STOP_GRACE_MS);
    return 0;
}
