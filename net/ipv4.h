// IPv4 addresses: parsing, name resolution, the local-address test and this host's own address
// and mask as the platform's interface configuration gives them (static before DHCP).
// Addresses are 32-bit values in network byte order everywhere.
#pragma once

#include <cstddef>
#include <cstdint>

// inet_addr semantics: 0 and the address, 1 for a null pointer or a text that is not an
// address. 255.255.255.255 is refused on purpose; the short forms inet_addr accepts are not.
int32_t ParseIPv4(const char* text, uint32_t* address);
// getaddrinfo with up to three one-second retries on "try again". 0 and the address, or 1.
int32_t ResolveHost(const char* name, uint32_t* address);
// 1 after the last resolution failed, 0 after it succeeded.
int32_t GetResolveFailure();
// 1 when the address is 127.0.0.1 or one of this host's own addresses; 1 for a null pointer.
int32_t IsLocalAddress(const uint32_t* address);
// This host's address: the adapter search, else the host name. 0 and the address, or 1.
int32_t GetLocalAddress(uint32_t* address);
// The adapter search: 0 when an adapter's (or the cached) address was delivered; 1 when the
// defaults 127.0.0.1 / 255.255.255.0 were.
int32_t GetAdapterAddress(uint32_t* address, uint32_t* mask);

// One adapter's interface configuration, in the platform's list order.
struct AdapterSetting {
    int32_t dhcp;           // 1 when the address was leased, 0 when configured statically
    char address[64];       // dotted text; empty or "0.0.0.0" when there is none
    char mask[64];
};

// The precedence of the adapter search, as a pure function: the first static adapter with an
// address wins; failing that the first DHCP adapter with a lease. 1 and the address and mask
// (each only when it parses) when one was taken, else 0 and nothing written.
int32_t SelectAdapterAddress(const AdapterSetting* adapters, size_t count, uint32_t* address, uint32_t* mask);

const uint32_t REGISTRY_TEXT_SIZE = 1024;
// HKEY_LOCAL_MACHINE readers (Windows only; elsewhere they return the empty text). Each returns
// buffer, or a pointer to an empty text for a null path or buffer.
char* ReadRegistryString(const char* keyPath, const char* valueName, char* buffer);
char* ReadRegistryStringList(const char* keyPath, const char* valueName, char* buffer);
