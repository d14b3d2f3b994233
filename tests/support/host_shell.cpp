// Host scripts for test peers: scratch directories, files and completion by status file.
#include "tests/support/host_shell.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace {
const uint32_t STATUS_POLL_MS = 20;
std::atomic<uint32_t> scratchCounter{0};
}  // namespace

std::string MakeHostScratch(const char* tag) {
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    const std::string hostPath = "/tmp/norvik-" + std::string(tag) + "-" + std::to_string(CurrentProcessNumber()) +
                                 "-" + std::to_string(scratchCounter.fetch_add(1)) + "-" +
                                 std::to_string(static_cast<uint64_t>(stamp) % 1000000u);
    std::error_code error;
    std::filesystem::create_directories(LocalPathOf(hostPath), error);
    return error ? std::string() : hostPath;
}

void RemoveHostScratch(const std::string& hostPath) {
    if (hostPath.rfind("/tmp/norvik-", 0) != 0) {
        return;  // only ever what MakeHostScratch made
    }
    std::error_code error;
    std::filesystem::remove_all(LocalPathOf(hostPath), error);
}

std::string LocalPathOf(const std::string& hostPath) {
#ifdef _WIN32
    // Wine maps the host's root to drive Z:.
    std::string local = "Z:" + hostPath;
    for (char& c : local) {
        if (c == '/') c = '\\';
    }
    return local;
#else
    return hostPath;
#endif
}

bool HostFileExists(const std::string& hostPath) {
    std::error_code error;
    return std::filesystem::exists(LocalPathOf(hostPath), error);
}

bool WriteHostFile(const std::string& hostPath, const std::string& contents) {
    std::ofstream file(LocalPathOf(hostPath), std::ios::binary | std::ios::trunc);
    file << contents;
    return static_cast<bool>(file);
}

std::string ReadHostFile(const std::string& hostPath) {
    std::ifstream file(LocalPathOf(hostPath), std::ios::binary);
    std::ostringstream contents;
    contents << file.rdbuf();
    return contents.str();
}

bool StartHostScript(const std::string& scratch, const char* name, const std::string& script) {
    const std::string base = scratch + "/" + name;
    const std::string wrapped = "exec > '" + base + ".out' 2>&1 </dev/null\n" + script + "\n";
    return WriteHostFile(base + ".sh", wrapped) && LaunchHostShell(base + ".sh");
}

int32_t RunHostScript(const std::string& scratch, const char* name, const std::string& script, uint32_t timeoutMs,
                      std::string* output) {
    const std::string base = scratch + "/" + name;
    // The status file appears whole (renamed into place), only once the script has ended.
    const std::string wrapped = "(\n" + script + "\n)\necho $? > '" + base + ".part'\nmv '" + base + ".part' '" +
                                base + ".status'\n";
    if (!StartHostScript(scratch, name, wrapped)) return -1;
    for (uint32_t waited = 0; !HostFileExists(base + ".status"); waited += STATUS_POLL_MS) {
        if (waited >= timeoutMs) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(STATUS_POLL_MS));
    }
    if (output != nullptr) *output = ReadHostFile(base + ".out");
    return std::atoi(ReadHostFile(base + ".status").c_str());
}
