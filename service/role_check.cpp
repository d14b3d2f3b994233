// The supervision loop's minute re-check of the configured role, as a pure decision: does the
// setting still name this host exactly when the service runs as the server?
#include "net/ipv4.h"
#include "service/service.h"

int32_t RoleChangeNeeded(const char* setting, uint32_t* address, uint8_t serverRole) {
    // An empty or unparsable setting leaves the previous address in force, so that a setting
    // file caught half-written never flips the role. An empty setting or 0.0.0.0 (server by the
    // controller's rule) is never local here, so a server started for them is restarted at
    // every re-check: installations name the server's own address to avoid that.
    ParseIPv4(setting, address);
    const uint8_t local = IsLocalAddress(address) != 0 ? 1 : 0;
    return local != serverRole ? 1 : 0;
}
