// Native twin of the host calls: threads from /proc, scripts as grandchildren, detached exactly as
// under Wine, leaving no child to reap.
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

#include "tests/support/host.h"

extern char** environ;

size_t CountProcessThreads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

uint32_t CurrentProcessNumber() { return static_cast<uint32_t>(getpid()); }

std::string LocalPathOf(const std::string& hostPath) { return hostPath; }

bool LaunchHostShell(const std::string& scriptHostPath) {
    // The intermediate shell puts the script in the background and ends at once.
    const char* argv[] = {"/bin/sh", "-c", "/bin/sh \"$0\" &", scriptHostPath.c_str(), nullptr};
    pid_t child = 0;
    if (posix_spawn(&child, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) return false;
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}
