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
#include "sntp/sntp_test_seams.h"
#include "sntp/sntp_troubles.h"
#include "trouble/trouble_queue.h"

std::atomic<uint8_t> serverRole{1};
char sntpServerSetting[SNTP_SETTING_SIZE];

namespace {
int32_t sntpInitialised = 0;  // 1 after the once-only initialisation; under ControlStateLock
const char SETTING_KEY[] = "SNTP_IP";
const uint32_t DIRECTORY_COPY_LIMIT = 512;
const uint32_t STOP_GRACE_MS = 1200;  // covers a one-second sleep and a 500 ms wait step

// The one time thread, client or server; null when none runs. Start, restart and stop change
// it only under ControlStateLock, and a thread is started only after the one before it has been
// joined: so there is never a second time thread.
ThreadHandle timeThread = nullptr;
// Set by StopSntp, cleared by StartSntp: a restart that comes after the stop (a control that
// raced the service's end) starts nothing.
bool synchronisationStopped = false;

// Lives as long as the process. The service host's controlLock serialises its own restarts;
// this one also covers StartSntp and StopSntp, which the host calls without it, so that a
// restart asked for before the first start or during the last stop cannot add a thread.
Lock* ControlStateLock() {
    static PermanentLock lock;
    return lock.Get();
}

class ControlHold : public LockHold {
public:
    ControlHold() : LockHold(ControlStateLock()) {}
};

void InitialiseOnce() {
    if (sntpInitialised != 0) {
        return;
    }
    sntpInitialised = 1;
    InitMessageTexts();
    NtpInitEpoch();
    CreateTroubleQueue();
}

// <directory>\Vantor.dat, bounded to a path buffer, as this platform opens it.
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
    ToPlatformPath(path);
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

namespace {
// The thread has been told to stop (stopRequested): waits until it has ended. After the grace
// period a time thread has normally ended already; one that has not (a name resolution that
// takes its time, a host too busy to schedule it) is waited for, as a second time thread would
// be worse than a late one.
void JoinTimeThread() {
    JoinThread(timeThread);
    timeThread = nullptr;
}

// A start, with no time thread running: the setting read, the role chosen, the thread started.
// 1 when no thread could be started; the role's "could not start" trouble then says so, since
// nothing would run until the next restart.
int32_t StartTimeThread() {
    InitialiseOnce();
    serverRole = 1;
    char directory[PATH_CAPACITY];
    GetDataDirectory(directory, PATH_CAPACITY);
    if (ReadSntpIp(sntpServerSetting, directory) != 0) {
        return 1;
    }
    // Cleared here, before the thread exists, so that no stop asked for after this start can be
    // lost to a clearing that comes late.
    stopRequested = 0;
    int32_t started = 0;
    SntpResult notStarted = SNTP_SERVER_NOT_STARTED;
    if (ChooseServerRole(sntpServerSetting) != 0) {
        started = StartJoinableThread(SntpServerThread, 0, &timeThread);
    } else {
        serverRole = 0;
        notStarted = SNTP_CLIENT_NOT_STARTED;
        // The client copies the text at its start; the next write comes after it was joined.
        started = StartJoinableThread(SntpClientThread,
                                      static_cast<uint64_t>(reinterpret_cast<uintptr_t>(sntpServerSetting)), &timeThread);
    }
    if (started == 0) {
        SetSntpTrouble(notStarted);
        return 1;
    }
    return 0;
}

// Stop flag, clears, the grace period, and the old thread joined.
void StopTimeThread() {
    stopRequested = 1;
    ClearAllSntpTroubles();
    SleepFor(STOP_GRACE_MS);
    JoinTimeThread();
}
}  // namespace

int32_t StartSntp() {
    ControlHold hold;
    synchronisationStopped = false;
    if (timeThread != nullptr) {
        // A restart got here first: its thread gives way to this start's.
        stopRequested = 1;
        JoinTimeThread();
    }
    return StartTimeThread();
}

int32_t RestartSntp() {
    ControlHold hold;
    if (synchronisationStopped) {
        return 0;
    }
    StopTimeThread();
    return StartTimeThread();
}

int32_t StopSntp() {
    ControlHold hold;
    synchronisationStopped = true;
    StopTimeThread();
    return 0;
}

int32_t TimeThreadRunning() {
    ControlHold hold;
    return timeThread != nullptr ? 1 : 0;
}
