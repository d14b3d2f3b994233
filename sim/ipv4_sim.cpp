// The machine's IPv4 platform, installed in place of the system's table (the IPv4 routines' own
// seam, InstallIpv4Platform): the machine's name, its host entry and its one adapter (a static
// 127.0.0.10), and name resolution answered by the world. inet_addr is the C library's: parsing a
// text touches no machine state. The portable ipv4.cpp is unchanged; ipv4_posix.cpp is linked
// as it is, for the registry readers, and never called.
#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>

#include "net/ipv4.h"
#include "net/ipv4_platform.h"
#include "net/net_test_seams.h"
#include "sim/network.h"
#include "sim/observe.h"

namespace {
const char HOST_NAME[] = "controlws";
const char HOST_ADDRESS_TEXT[] = "127.0.0.10";
const char HOST_MASK_TEXT[] = "255.0.0.0";

int32_t StartNothing() { return 0; }

uint32_t ParseText(const char* text) { return inet_addr(text); }

int32_t ReadHostName(char* buffer, size_t size) {
    if (size < sizeof HOST_NAME) {
        return 1;
    }
    memcpy(buffer, HOST_NAME, sizeof HOST_NAME);
    return 0;
}

int32_t ReadHostEntry(const char* name, uint32_t* addresses, size_t capacity, size_t* count) {
    if (strcmp(name, HOST_NAME) != 0 || capacity == 0) {
        return 1;
    }
    addresses[0] = HOST_ADDRESS;
    *count = 1;
    return 0;
}

int32_t ReadAdapters(AdapterSetting** adapters, size_t* count) {
    AdapterSetting* settings = static_cast<AdapterSetting*>(calloc(1, sizeof(AdapterSetting)));
    if (settings == nullptr) {
        return 1;
    }
    settings->dhcp = 0;
    memcpy(settings->address, HOST_ADDRESS_TEXT, sizeof HOST_ADDRESS_TEXT);
    memcpy(settings->mask, HOST_MASK_TEXT, sizeof HOST_MASK_TEXT);
    *adapters = settings;
    *count = 1;
    return 0;
}

const Ipv4Platform MACHINE_IPV4 = {
    StartNothing, ParseText, WorldLookupHost, ReadHostName, ReadHostEntry, ReadAdapters,
};
}  // namespace

void InstallMachineIpv4() { InstallIpv4Platform(&MACHINE_IPV4); }
