// Native twin of the host-script launcher: the script runs as a grandchild, so that it is
// detached exactly as under Wine and leaves no child to reap.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/host_shell.h"

extern char** environ;

bool LaunchHostShell(const std::string& scriptHostPath) {
    // The intermediate shell puts the script in the background and ends at once.
    const char* argv[] = {"/bin/sh", "-c", "/bin/sh \"$0\" &", scriptHostPath.c_str(), nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) return false;
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

uint32_t CurrentProcessNumber() { return static_cast<uint32_t>(getpid()); }
