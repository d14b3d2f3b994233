// The portable IPv4 routines: parsing, resolution with its retries, the local-address test, the
// adapter search's precedence and cache. The platform calls come from an Ipv4Platform table.
#include "net/ipv4.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include "net/ipv4_platform.h"
#include "net/net_test_seams.h"
#include "net/net_socket.h"
#include "runtime/runtime.h"

namespace {
const uint32_t ADDRESS_NONE = 0xFFFFFFFFu;           // inet_addr's "not an address"
const uint32_t LOOPBACK_ADDRESS = 0x0100007Fu;       // 127.0.0.1 in network order
const uint32_t DEFAULT_MASK = 0x00FFFFFFu;           // 255.255.255.0 in network order
const int32_t RESOLVE_RETRIES = 3;                   // after the first attempt
const uint32_t RESOLVE_RETRY_PAUSE_MS = 1000;
const size_t IS_LOCAL_HOST_NAME_SIZE = 256;
const size_t LOCAL_ADDRESS_HOST_NAME_SIZE = 41;      // a longer host name fails the fall-back
const size_t ADAPTER_TEXT_SIZE = sizeof(AdapterSetting{}.address);
const char UNSET_ADDRESS_TEXT[] = "0.0.0.0";

std::atomic<const Ipv4Platform*> activePlatform{&systemIpv4Platform};

// Plain last-writer-wins state in the service's design; atomic so each value is read whole.
std::atomic<int32_t> resolveFailure{0};
std::atomic<uint32_t> cacheValid{0};
std::atomic<uint32_t> cachedAddress{0};
std::atomic<uint32_t> cachedMask{0};

const Ipv4Platform& Platform() { return *activePlatform.load(); }

// The socket library is started here only when no NetSocket has started it already, and this
// start is never undone, on purpose: the library counts its starts, so an extra one only keeps
// it loaded for the life of the process, which is what a service that tests its own addresses
// every minute wants (no load and unload around each test). Nothing grows but that count, one
// a minute at most between exchanges: its 32 bits would last some four thousand years.
int32_t StartLibraryIfIdle() {
    if (NetLibraryUsers() != 0) {
        return 0;
    }
    return Platform().startLibrary();
}

// A setting's text, bounded even when the record's array is not terminated.
void CopyAdapterText(const char* source, char* destination) {
    memcpy(destination, source, ADAPTER_TEXT_SIZE);
    destination[ADAPTER_TEXT_SIZE - 1] = '\0';
}

void TakeAdapter(const char* addressText, const char* maskText, uint32_t* address, uint32_t* mask) {
    const uint32_t parsedAddress = Platform().parseText(addressText);
    if (parsedAddress != ADDRESS_NONE) {
        *address = parsedAddress;
    }
    const uint32_t parsedMask = Platform().parseText(maskText);
    if (parsedMask != ADDRESS_NONE) {
        *mask = parsedMask;
    }
}
}  // namespace

const Ipv4Platform* InstallIpv4Platform(const Ipv4Platform* platform) {
    return activePlatform.exchange(platform != nullptr ? platform : &systemIpv4Platform);
}

void ForgetAdapterCache() { cacheValid.store(0); }

int32_t ParseIPv4(const char* text, uint32_t* address) {
    if (text == nullptr || address == nullptr) {
        return 1;
    }
    // inet_addr cannot tell 255.255.255.255 from a failure, so that text is refused on purpose.
    const uint32_t parsed = Platform().parseText(text);
    if (parsed == ADDRESS_NONE) {
        return 1;
    }
    *address = parsed;
    return 0;
}

int32_t ResolveHost(const char* name, uint32_t* address) {
    if (StartLibraryIfIdle() != 0) {
        return 1;
    }
    if (name == nullptr || address == nullptr) {
        return 1;
    }
    uint32_t found = 0;
    for (int32_t retriesLeft = RESOLVE_RETRIES;; --retriesLeft) {
        const int32_t error = Platform().lookupHost(name, &found);
        if (error == 0) {
            break;
        }
        if (error != RESOLVE_TRY_AGAIN || retriesLeft == 0) {
            resolveFailure.store(1);
            return 1;
        }
        SleepFor(RESOLVE_RETRY_PAUSE_MS);
    }
    *address = found;
    resolveFailure.store(0);
    return 0;
}

int32_t GetResolveFailure() { return resolveFailure.load(); }

int32_t IsLocalAddress(const uint32_t* address) {
    if (address == nullptr) {
        return 1;
    }
    // Only 127.0.0.1 is answered without a lookup; other loopback addresses are not special.
    if (*address == LOOPBACK_ADDRESS) {
        return 1;
    }
    if (StartLibraryIfIdle() != 0) {
        return 0;
    }
    char hostName[IS_LOCAL_HOST_NAME_SIZE];
    if (Platform().readHostName(hostName, sizeof(hostName)) != 0) {
        return 0;
    }
    hostName[sizeof(hostName) - 1] = '\0';
    uint32_t listed[HOST_ENTRY_LIMIT];
    size_t count = 0;
    if (Platform().readHostEntry(hostName, listed, HOST_ENTRY_LIMIT, &count) != 0) {
        return 0;
    }
    for (size_t index = 0; index < count && index < HOST_ENTRY_LIMIT; ++index) {
        if (listed[index] == *address) {
            return 1;
        }
    }
    return 0;
}

int32_t GetLocalAddress(uint32_t* address) {
    if (StartLibraryIfIdle() != 0 || address == nullptr) {
        return 1;
    }
    uint32_t adapterAddress = 0;
    uint32_t adapterMask = 0;
    if (GetAdapterAddress(&adapterAddress, &adapterMask) == 0) {
        *address = adapterAddress;
        return 0;
    }
    char hostName[LOCAL_ADDRESS_HOST_NAME_SIZE];
    if (Platform().readHostName(hostName, sizeof(hostName)) != 0) {
        return 1;
    }
    hostName[sizeof(hostName) - 1] = '\0';
    uint32_t found = Platform().parseText(hostName);
    if (found == ADDRESS_NONE) {
        size_t count = 0;
        if (Platform().readHostEntry(hostName, &found, 1, &count) != 0 || count == 0) {
            return 1;
        }
    }
    *address = found;
    return 0;
}

int32_t SelectAdapterAddress(const AdapterSetting* adapters, size_t count, uint32_t* address, uint32_t* mask) {
    if (adapters == nullptr || address == nullptr || mask == nullptr) {
        return 0;
    }
    int32_t taken = 0;
    for (size_t index = 0; index < count; ++index) {
        char addressText[ADAPTER_TEXT_SIZE];
        char maskText[ADAPTER_TEXT_SIZE];
        CopyAdapterText(adapters[index].address, addressText);
        CopyAdapterText(adapters[index].mask, maskText);
        if (addressText[0] == '\0' || strcmp(addressText, UNSET_ADDRESS_TEXT) == 0) {
            continue;
        }
        if (adapters[index].dhcp == 0) {
            TakeAdapter(addressText, maskText, address, mask);
            return 1;  // a static address ends the search
        }
        if (taken == 0) {
            // The first lease is kept unless a static adapter follows; later leases are ignored.
            TakeAdapter(addressText, maskText, address, mask);
            taken = 1;
        }
    }
    return taken;
}

int32_t GetAdapterAddress(uint32_t* address, uint32_t* mask) {
    if (address == nullptr || mask == nullptr) {
        return 1;
    }
    AdapterSetting* adapters = nullptr;
    size_t count = 0;
    int32_t taken = 0;
    if (Platform().readAdapters(&adapters, &count) == 0) {
        taken = SelectAdapterAddress(adapters, count, address, mask);
        free(adapters);
    }
    if (taken != 0) {
        cachedAddress.store(*address);
        cachedMask.store(*mask);
        cacheValid.store(1);
        return 0;
    }
    if (cacheValid.load() != 0) {
        *address = cachedAddress.load();
        *mask = cachedMask.load();
        return 0;
    }
    *address = LOOPBACK_ADDRESS;
    *mask = DEFAULT_MASK;
    return 1;
}
