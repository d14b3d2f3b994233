// Native twin of the host calls: threads from /proc.
#include <unistd.h>

#include <filesystem>

#include "tests/support/host.h"

size_t CountProcessThreads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<size_t>(std::distance(begin(tasks), end(tasks)));
}

uint32_t CurrentProcessNumber() { return static_cast<uint32_t>(getpid()); }
