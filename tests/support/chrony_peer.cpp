// chrony as a test peer: configuration files in a host scratch directory, started and stopped
// through host scripts. Every chronyd run is capped by `timeout`, so none outlives a test run.
#include "tests/support/chrony_peer.h"

#include <chrono>
#include <cstdlib>
#include <thread>

#include "tests/support/host_shell.h"

namespace {
const uint32_t SERVER_LIFETIME_S = 120;     // the cap on a server's life if a test never stops it
const uint32_t SERVER_START_PATIENCE_MS = 5000;
const uint32_t SERVER_STOP_PATIENCE_MS = 5000;
const uint32_t QUERY_LIMIT_S = 10;          // chronyd -Q gives up after this
const uint32_t QUERY_PATIENCE_MS = 20000;
const uint32_t POLL_MS = 50;
const char OFFSET_MARK[] = "System clock wrong by ";
}  // namespace

bool ChronyInstalled() { return HostFileExists(CHRONYD_PATH); }

bool ChronyServer::Start(const char* bindAddress) {
    Stop();
    scratch_ = MakeHostScratch("chronyd");
    if (scratch_.empty()) return false;
    // -x: the clock is never touched; -u root: no switch to a user that cannot read scratch.
    const std::string config = std::string("bindaddress ") + bindAddress + "\nport 123\nallow 127.0.0.0/8\n" +
                               "local stratum 1\ndriftfile " + scratch_ + "/drift\npidfile " + scratch_ +
                               "/chronyd.pid\ncmdport 0\n";
    if (!WriteHostFile(scratch_ + "/chrony.conf", config)) return false;
    const std::string script = "exec timeout " + std::to_string(SERVER_LIFETIME_S) + " " + CHRONYD_PATH +
                               " -x -d -u root -f " + scratch_ + "/chrony.conf";
    if (!StartHostScript(scratch_, "server", script)) return false;
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
    RunHostScript(scratch_, "stop", script, SERVER_STOP_PATIENCE_MS, nullptr);
    RemoveHostScratch(scratch_);
    scratch_.clear();
}

std::string ChronyServer::Log() const { return scratch_.empty() ? std::string() : ReadHostFile(scratch_ + "/server.out"); }

bool QueryWithChrony(const std::string& serverLine, double* offsetSeconds, std::string* output) {
    const std::string scratch = MakeHostScratch("chronyq");
    if (scratch.empty()) return false;
    const std::string config = "server " + serverLine + "\npidfile " + scratch + "/chronyd.pid\ncmdport 0\n";
    std::string text;
    int32_t status = -1;
    if (WriteHostFile(scratch + "/chrony.conf", config)) {
        // -Q: measure only, never set the clock.
        const std::string script = std::string(CHRONYD_PATH) + " -Q -t " + std::to_string(QUERY_LIMIT_S) +
                                   " -u root -f " + scratch + "/chrony.conf";
        status = RunHostScript(scratch, "query", script, QUERY_PATIENCE_MS, &text);
    }
    RemoveHostScratch(scratch);
    if (output != nullptr) *output = text;
    const size_t mark = text.find(OFFSET_MARK);
    if (status != 0 || mark == std::string::npos) return false;
    // chrony's estimate of how far the local clock is off from the server's.
    *offsetSeconds = std::strtod(text.c_str() + mark + sizeof OFFSET_MARK - 1, nullptr);
    return true;
}
