// chrony as a test peer: configuration files in a host scratch directory, started and stopped
// through host scripts that report their end through status files. Every chronyd run is capped
// by `timeout`, so none outlives a test run.
#include "tests/support/chrony_peer.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

#include "tests/support/host.h"

namespace {
// chrony's programs as scripts/setup.sh unpacks them beside the build (its package is never
// installed: it would replace the host's own time service). A host path, also under Wine.
const char CHRONYD_PATH[] = NORVIK_CHRONYD_PATH;
const uint32_t SERVER_LIFETIME_S = 120;     // the cap on a server's life if a test never stops it
const uint32_t SERVER_START_PATIENCE_MS = 5000;
const uint32_t SERVER_STOP_PATIENCE_MS = 5000;
const uint32_t QUERY_LIMIT_S = 10;          // chronyd -Q gives up after this
const uint32_t QUERY_PATIENCE_MS = 20000;
const uint32_t POLL_MS = 50;
const char OFFSET_MARK[] = "System clock wrong by ";
const uint32_t STATUS_POLL_MS = 20;
std::atomic<uint32_t> scratchCounter{0};

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
    if (hostPath.rfind("/tmp/norvik-", 0) != 0) return;  // only ever what MakeHostScratch made
    std::error_code error;
    std::filesystem::remove_all(LocalPathOf(hostPath), error);
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

// Runs `sh <scratch>/<name>.sh` detached, its output in <name>.out, and waits up to timeoutMs (0:
// not at all) for its end: its exit status, 0 when not waited for, -1 when not started or not ended.
// The status file appears whole (renamed into place), only once the script has ended.
int32_t RunHostScript(const std::string& scratch, const char* name, const std::string& script, uint32_t timeoutMs,
                      std::string* output = nullptr) {
    const std::string base = scratch + "/" + name;
    const std::string wrapped = "exec > '" + base + ".out' 2>&1 </dev/null\n(\n" + script + "\n)\necho $? > '" + base +
                                ".part'\nmv '" + base + ".part' '" + base + ".status'\n";
    if (!WriteHostFile(base + ".sh", wrapped) || !LaunchHostShell(base + ".sh")) return -1;
    for (uint32_t waited = 0; timeoutMs > 0 && !HostFileExists(base + ".status"); waited += STATUS_POLL_MS) {
        if (waited >= timeoutMs) return -1;
        std::this_thread::sleep_for(std::chrono::milliseconds(STATUS_POLL_MS));
    }
    if (output != nullptr) *output = ReadHostFile(base + ".out");
    return timeoutMs > 0 ? std::atoi(ReadHostFile(base + ".status").c_str()) : 0;
}
}  // namespace

const char* ChronydPath() { return CHRONYD_PATH; }

bool ChronyInstalled() { return HostFileExists(CHRONYD_PATH); }

bool ChronyServer::Start(const char* bindAddress) {
    Stop();
    scratch_ = MakeHostScratch("chronyd");
    if (scratch_.empty()) return false;
    // -x: the clock is never touched; -u root: no switch to a user that cannot read scratch. The
    // directives on the command line stand for a configuration file.
    const std::string script = "exec timeout " + std::to_string(SERVER_LIFETIME_S) + " " + CHRONYD_PATH +
                               " -x -d -u root 'bindaddress " + bindAddress + "' 'port 123' 'allow 127.0.0.0/8' " +
                               "'local stratum 1' 'pidfile " + scratch_ + "/chronyd.pid' 'cmdport 0' 'bindcmdaddress /'";
    if (RunHostScript(scratch_, "server", script, 0) != 0) return false;
    // The pid file is written once the sockets are bound.
    for (uint32_t waited = 0; waited < SERVER_START_PATIENCE_MS; waited += POLL_MS) {
        if (HostFileExists(scratch_ + "/chronyd.pid")) return true;
        if (Log().find("Fatal") != std::string::npos) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(POLL_MS));
    }
    return false;
}

void ChronyServer::Stop() {
    if (scratch_.empty()) return;
    // chronyd removes its pid file on the way out; wait for that before removing the scratch.
    const std::string pidFile = scratch_ + "/chronyd.pid";
    const std::string script = "[ -f '" + pidFile + "' ] && kill $(cat '" + pidFile + "')\n" +
                               "for i in $(seq 50); do [ -f '" + pidFile + "' ] || exit 0; sleep 0.1; done\nexit 1";
    RunHostScript(scratch_, "stop", script, SERVER_STOP_PATIENCE_MS);
    RemoveHostScratch(scratch_);
    scratch_.clear();
}

std::string ChronyServer::Log() const { return scratch_.empty() ? std::string() : ReadHostFile(scratch_ + "/server.out"); }

bool QueryWithChrony(const std::string& serverLine, double* offsetSeconds, std::string* output) {
    const std::string scratch = MakeHostScratch("chronyq");
    if (scratch.empty()) return false;
    // -Q: measure only, never set the clock.
    const std::string script = std::string(CHRONYD_PATH) + " -Q -t " + std::to_string(QUERY_LIMIT_S) + " -u root 'server " +
                               serverLine + "' 'pidfile " + scratch + "/chronyd.pid' 'cmdport 0'";
    std::string text;
    const int32_t status = RunHostScript(scratch, "query", script, QUERY_PATIENCE_MS, &text);
    RemoveHostScratch(scratch);
    if (output != nullptr) *output = text;
    const size_t mark = text.find(OFFSET_MARK);
    if (status != 0 || mark == std::string::npos) return false;
    // chrony's estimate of how far the local clock is off from the server's.
    *offsetSeconds = std::strtod(text.c_str() + mark + sizeof OFFSET_MARK - 1, nullptr);
    return true;
}
