// POSIX edge of the IPv4 routines for the native build: inet_addr, getaddrinfo,
// gethostname/gethostbyname_r and getifaddrs. There is no registry here, so the registry
// readers give the empty text.
#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "net/ipv4.h"
#include "net/ipv4_platform.h"

namespace {
const size_t HOST_ENTRY_BUFFER_SIZE = 8192;
char emptyText[1] = {'\0'};

int32_t StartNothing() { return 0; }

uint32_t ParseText(const char* text) { return inet_addr(text); }

int32_t LookupHost(const char* name, uint32_t* address) {
    addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    addrinfo* answers = nullptr;
    const int error = getaddrinfo(name, nullptr, &hints, &answers);
    if (error == EAI_AGAIN) {
        return RESOLVE_TRY_AGAIN;
    }
    if (error != 0) {
        return error < 0 ? -error : error;  // any non-zero code is a plain failure
    }
    const int32_t result = FirstIpv4Answer(answers, AF_INET, address);
    freeaddrinfo(answers);
    return result;
}

int32_t ReadHostName(char* buffer, size_t size) { return gethostname(buffer, size) == 0 ? 0 : 1; }

// gethostbyname_r rather than gethostbyname: the same entry, without the shared static result.
int32_t ReadHostEntry(const char* name, uint32_t* addresses, size_t capacity, size_t* count) {
    hostent entry;
    hostent* found = nullptr;
    char scratch[HOST_ENTRY_BUFFER_SIZE];
    int lookupError = 0;
    if (gethostbyname_r(name, &entry, scratch, sizeof(scratch), &found, &lookupError) != 0 || found == nullptr) {
        return 1;
    }
    if (found->h_addrtype != AF_INET || found->h_length != static_cast<int>(sizeof(uint32_t))) {
        return 1;
    }
    size_t listed = 0;
    for (char** next = found->h_addr_list; *next != nullptr && listed < capacity; ++next) {
        memcpy(&addresses[listed], *next, sizeof(uint32_t));
        ++listed;
    }
    *count = listed;
    return 0;
}

bool IsUsableIpv4(const ifaddrs* entry) {
    return entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET && (entry->ifa_flags & IFF_LOOPBACK) == 0;
}

void WriteAddressText(const sockaddr* address, char* text, size_t size) {
    if (address == nullptr || address->sa_family != AF_INET) {
        text[0] = '\0';
        return;
    }
    const sockaddr_in* inet = reinterpret_cast<const sockaddr_in*>(address);
    if (inet_ntop(AF_INET, &inet->sin_addr, text, static_cast<socklen_t>(size)) == nullptr) {
        text[0] = '\0';
    }
}

// Every IPv4 address of a non-loopback interface counts as static. getifaddrs does not say how
// an address was configured (a DHCP client writes it exactly as an administrator would), and a
// lifetime-based guess through netlink would only make the native build differ from run to run;
// this build exists to test the portable core, whose static-before-DHCP precedence is exercised
// through SelectAdapterAddress directly. Loopback is left out as it has no interface settings
// of its own on Windows either. Like there, an interface that is down still counts.
int32_t ReadAdapters(AdapterSetting** adapters, size_t* count) {
    ifaddrs* list = nullptr;
    if (getifaddrs(&list) != 0) {
        return 1;
    }
    size_t usable = 0;
    for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
        usable += IsUsableIpv4(entry) ? 1 : 0;
    }
    AdapterSetting* settings = static_cast<AdapterSetting*>(calloc(usable > 0 ? usable : 1, sizeof(AdapterSetting)));
    if (settings == nullptr) {
        freeifaddrs(list);
        return 1;
    }
    size_t filled = 0;
    for (const ifaddrs* entry = list; entry != nullptr && filled < usable; entry = entry->ifa_next) {
        if (!IsUsableIpv4(entry)) {
            continue;
        }
        settings[filled].dhcp = 0;
        WriteAddressText(entry->ifa_addr, settings[filled].address, sizeof(settings[filled].address));
        WriteAddressText(entry->ifa_netmask, settings[filled].mask, sizeof(settings[filled].mask));
        ++filled;
    }
    freeifaddrs(list);
    *adapters = settings;
    *count = filled;
    return 0;
}

char* EmptyRegistryText(const char* keyPath, char* buffer) {
    if (keyPath == nullptr || buffer == nullptr) {
        emptyText[0] = '\0';
        return emptyText;
    }
    buffer[0] = '\0';
    buffer[REGISTRY_TEXT_SIZE - 1] = '\0';
    return buffer;
}
}  // namespace

const Ipv4Platform systemIpv4Platform = {
    StartNothing, ParseText, LookupHost, ReadHostName, ReadHostEntry, ReadAdapters,
};

char* ReadRegistryString(const char* keyPath, const char*, char* buffer) { return EmptyRegistryText(keyPath, buffer); }

char* ReadRegistryStringList(const char* keyPath, const char*, char* buffer) {
    return EmptyRegistryText(keyPath, buffer);
}
