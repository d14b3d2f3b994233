// SntpServe: the service's SNTP server thread on its own, for benchmarks and test rigs. It
// answers on a port (default 123) for a bounded time and then stops the thread the way the
// controller does. Troubles go nowhere here; the ones still active at the end are printed.
//
//   SntpServe [-p PORT] [-s SECONDS]
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/runtime.h"
#include "sntp/ntp_time.h"
#include "sntp/sntp_server.h"
#include "sntp/sntp_test_seams.h"
#include "sntp/sntp_troubles.h"
#include "tools/tool_options.h"

namespace {
const long DEFAULT_SECONDS = 60;
const long MAX_SECONDS = 3600;
const uint32_t STOP_GRACE_MS = 1200;  // one select step of the server and some
const int USAGE_STATUS = 64;
}  // namespace

int main(int argc, char** argv) {
    long port = SNTP_PORT;
    long seconds = DEFAULT_SECONDS;
    for (int i = 1; i < argc; i += 2) {
        const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
        const bool known = (std::strcmp(argv[i], "-p") == 0 && ParseNumber(value, 1, 65535, &port)) ||
                           (std::strcmp(argv[i], "-s") == 0 && ParseNumber(value, 1, MAX_SECONDS, &seconds));
        if (!known) {
            std::fprintf(stderr, "usage: SntpServe [-p PORT (default 123)] [-s SECONDS (1..%ld, default %ld)]\n",
                         MAX_SECONDS, DEFAULT_SECONDS);
            return USAGE_STATUS;
        }
    }
    NtpInitEpoch();
    sntpServerPort = static_cast<uint16_t>(port);
    if (StartThread(SntpServerThread, 0) != 1) {
        std::fprintf(stderr, "SntpServe: the server thread did not start\n");
        return 1;
    }
    std::printf("serving SNTP on UDP port %ld for %ld s\n", port, seconds);
    std::fflush(stdout);
    SleepFor(static_cast<uint32_t>(seconds) * MS_PER_SECOND);
    stopRequested = 1;
    SleepFor(STOP_GRACE_MS);
    const uint32_t mask = troubleMask.load();
    std::printf("stopped; active troubles: %s", mask == 0 ? "none" : "");
    for (SntpResult code = SNTP_SOCKET_ERROR; code <= SNTP_CANNOT_RESOLVE; ++code) {
        if ((mask & (1u << code)) != 0) {
            std::printf(" %d", code);
        }
    }
    std::printf("\n");
    return mask == 0 ? 0 : 1;
}
