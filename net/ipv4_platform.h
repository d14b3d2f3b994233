// The operating-system edge of the IPv4 routines: one table of the platform calls they make, so
// that the portable logic in ipv4.cpp (retries, fall-backs, the adapter cache) is written once
// and tests can replace any single call. ipv4_win32.cpp and ipv4_posix.cpp define the system
// table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "net/ipv4.h"

// getaddrinfo's "temporary failure, try again" (WSATRY_AGAIN; EAI_AGAIN is mapped onto it).
const int32_t RESOLVE_TRY_AGAIN = 11002;
// gethostbyname never lists more addresses than this on the platforms we ship to.
const size_t HOST_ENTRY_LIMIT = 64;

struct Ipv4Platform {
    // Starts the socket library (version 1.1) for callers that run while no NetSocket exists.
    // 0 on success. Never paired with a cleanup.
    int32_t (*startLibrary)();
    // inet_addr: the address in network order, or all ones for a text that is not one.
    uint32_t (*parseText)(const char* text);
    // getaddrinfo with all hints zero: 0 and the address of the first IPv4 answer, else the
    // platform's error code (RESOLVE_TRY_AGAIN for a temporary failure; 1 with no IPv4 answer).
    int32_t (*lookupHost)(const char* name, uint32_t* address);
    // gethostname into size bytes: 0 on success.
    int32_t (*readHostName)(char* buffer, size_t size);
    // gethostbyname: 0 and up to capacity addresses in the entry's order; 1 when there is none.
    int32_t (*readHostEntry)(const char* name, uint32_t* addresses, size_t capacity, size_t* count);
    // The adapters in the platform's list order: 0 and a calloc'd array the caller frees, or 1
    // when the platform gave no list.
    int32_t (*readAdapters)(AdapterSetting** adapters, size_t* count);
};

extern const Ipv4Platform systemIpv4Platform;

// The first IPv4 answer of a getaddrinfo list, for both platform files: any family is asked for,
// so a name with an IPv6 address may list that first, and its bytes are no IPv4 address. 0 and
// the address, or 1 when the list holds none. AddressInfo is the platform's addrinfo.
template <typename AddressInfo>
int32_t FirstIpv4Answer(const AddressInfo* answers, int ipv4Family, uint32_t* address) {
    const size_t ADDRESS_FIELD_OFFSET = 4;  // of the address in a sockaddr_in
    for (const AddressInfo* answer = answers; answer != nullptr; answer = answer->ai_next) {
        if (answer->ai_family == ipv4Family && answer->ai_addr != nullptr &&
            answer->ai_addrlen >= ADDRESS_FIELD_OFFSET + sizeof(uint32_t)) {
            std::memcpy(address, reinterpret_cast<const uint8_t*>(answer->ai_addr) + ADDRESS_FIELD_OFFSET,
                        sizeof(uint32_t));
            return 0;
        }
    }
    return 1;
}
