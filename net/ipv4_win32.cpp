// Windows edge of the IPv4 routines: Windows Sockets 1.1 start-up, inet_addr, getaddrinfo,
// gethostname/gethostbyname, the adapter list from IP Helper with each adapter's TCP/IP
// interface settings from the registry, and the HKEY_LOCAL_MACHINE string readers.
#include <winsock2.h>
#include <ws2tcpip.h>
#include <iphlpapi.h>
#include <windows.h>

#include <cstdlib>
#include <cstring>

#include "net/ipv4.h"
#include "net/ipv4_platform.h"
#include "runtime/handles_win32.h"
#include "runtime/text.h"

namespace {
const WORD WINSOCK_VERSION_1_1 = MAKEWORD(1, 1);
// Skip anycast, multicast and DNS-server entries: only the adapters themselves are wanted.
const ULONG ADAPTER_LIST_FLAGS = GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
const char INTERFACES_KEY[] = "SYSTEM\\CurrentControlSet\\services\\Tcpip\\Parameters\\Interfaces\\";
const size_t REGISTRY_NAME_UNITS = 260;       // key path or value name, with its NUL
const DWORD REGISTRY_STRING_DATA_BYTES = 520;
const DWORD REGISTRY_LIST_DATA_BYTES = 4096;
char emptyText[1] = {'\0'};

static_assert(ADAPTER_LIST_FLAGS == 14, "unicast addresses only: anycast, multicast and DNS servers name no host");

int32_t StartLibrary() {
    WSADATA data;
    return WSAStartup(WINSOCK_VERSION_1_1, &data) == 0 ? 0 : 1;
}

uint32_t ParseText(const char* text) { return inet_addr(text); }

int32_t LookupHost(const char* name, uint32_t* address) {
    addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    addrinfo* answers = nullptr;
    const int error = getaddrinfo(name, nullptr, &hints, &answers);
    if (error != 0) {
        return error;  // WSATRY_AGAIN is RESOLVE_TRY_AGAIN
    }
    // The list is released: a client that names its server and keeps failing resolves it every
    // twenty minutes, for years.
    const int32_t result = FirstIpv4Answer(answers, AF_INET, address);
    freeaddrinfo(answers);
    return result;
}

int32_t ReadHostName(char* buffer, size_t size) {
    return gethostname(buffer, static_cast<int>(size)) == 0 ? 0 : 1;
}

int32_t ReadHostEntry(const char* name, uint32_t* addresses, size_t capacity, size_t* count) {
    const hostent* found = gethostbyname(name);
    if (found == nullptr || found->h_addr_list == nullptr || found->h_length != static_cast<int>(sizeof(uint32_t))) {
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

// Byte by byte, at most REGISTRY_NAME_UNITS - 1 characters. "|" becomes "!" in names on the way
// in and in data on the way out: the one rule this system applies wherever it narrows or widens a
// text (the installation root, the setting file's lock name, these registry texts), so that a
// name reads the same whichever way it crossed.
void Widen(const char* text, wchar_t* wide) {
    size_t length = 0;
    for (; text != nullptr && text[length] != '\0' && length < REGISTRY_NAME_UNITS - 1; ++length) {
        const unsigned char unit = static_cast<unsigned char>(text[length]);
        wide[length] = unit == '|' ? L'!' : static_cast<wchar_t>(unit);
    }
    wide[length] = L'\0';
}

char Narrow(wchar_t unit) {
    const char narrow = static_cast<char>(unit & 0xFF);  // the low byte only
    return narrow == '|' ? '!' : narrow;
}

// The value's data as UTF-16 units, or 0 units when it is missing, too large or of another type.
size_t QueryValue(const char* keyPath, const char* valueName, DWORD requiredType, wchar_t* data, DWORD dataBytes) {
    wchar_t widePath[REGISTRY_NAME_UNITS];
    wchar_t wideName[REGISTRY_NAME_UNITS];
    Widen(keyPath, widePath);
    Widen(valueName, wideName);
    HKEY opened = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, widePath, 0, KEY_READ, &opened) != ERROR_SUCCESS) {
        return 0;
    }
    const UniqueKey key(opened);
    DWORD type = REG_NONE;
    DWORD size = dataBytes;
    const LONG result = RegQueryValueExW(key.Get(), wideName, nullptr, &type, reinterpret_cast<BYTE*>(data), &size);
    if (result != ERROR_SUCCESS || type != requiredType) {
        return 0;
    }
    return size / sizeof(wchar_t);
}

int32_t ReadAdapters(AdapterSetting** adapters, size_t* count) {
    ULONG size = 0;
    if (GetAdaptersAddresses(AF_INET, ADAPTER_LIST_FLAGS, nullptr, nullptr, &size) != ERROR_BUFFER_OVERFLOW) {
        return 1;
    }
    IP_ADAPTER_ADDRESSES* list = static_cast<IP_ADAPTER_ADDRESSES*>(malloc(size));
    if (list == nullptr) {
        return 1;
    }
    if (GetAdaptersAddresses(AF_INET, ADAPTER_LIST_FLAGS, nullptr, list, &size) != NO_ERROR) {
        free(list);
        return 1;
    }
    size_t listed = 0;
    for (const IP_ADAPTER_ADDRESSES* adapter = list; adapter != nullptr; adapter = adapter->Next) {
        ++listed;
    }
    AdapterSetting* settings = static_cast<AdapterSetting*>(calloc(listed > 0 ? listed : 1, sizeof(AdapterSetting)));
    if (settings == nullptr) {
        free(list);
        return 1;
    }
    // Only the registry settings count, not the adapter's live addresses or whether it is up.
    // An adapter whose settings cannot be read keeps an empty address, which the precedence skips.
    size_t index = 0;
    for (const IP_ADAPTER_ADDRESSES* adapter = list; adapter != nullptr && index < listed; adapter = adapter->Next, ++index) {
        char keyPath[REGISTRY_TEXT_SIZE];
        CopyText(keyPath, INTERFACES_KEY, static_cast<uint32_t>(sizeof(keyPath)));
        const size_t used = strlen(keyPath);
        CopyText(keyPath + used, adapter->AdapterName, static_cast<uint32_t>(sizeof(keyPath) - used));
        HKEY opened = nullptr;
        if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, keyPath, 0, KEY_READ, &opened) != ERROR_SUCCESS) {
            continue;
        }
        const UniqueKey key(opened);
        DWORD enableDhcp = 0;
        DWORD type = REG_NONE;
        DWORD valueSize = sizeof(enableDhcp);
        const LONG read =
            RegQueryValueExA(key.Get(), "EnableDHCP", nullptr, &type, reinterpret_cast<BYTE*>(&enableDhcp), &valueSize);
        if (read != ERROR_SUCCESS || type != REG_DWORD) {
            continue;
        }
        AdapterSetting& setting = settings[index];
        char text[REGISTRY_TEXT_SIZE];
        if (enableDhcp != 0) {
            setting.dhcp = 1;
            CopyText(setting.address, ReadRegistryString(keyPath, "DhcpIPAddress", text), static_cast<uint32_t>(sizeof(setting.address)));
            CopyText(setting.mask, ReadRegistryString(keyPath, "DhcpSubnetMask", text), static_cast<uint32_t>(sizeof(setting.mask)));
        } else {
            setting.dhcp = 0;  // the first string of each list is the adapter's primary address
            CopyText(setting.address, ReadRegistryStringList(keyPath, "IPAddress", text), static_cast<uint32_t>(sizeof(setting.address)));
            CopyText(setting.mask, ReadRegistryStringList(keyPath, "SubnetMask", text), static_cast<uint32_t>(sizeof(setting.mask)));
        }
    }
    free(list);
    *adapters = settings;
    *count = listed;
    return 0;
}
}  // namespace

const Ipv4Platform systemIpv4Platform = {
    StartLibrary, ParseText, LookupHost, ReadHostName, ReadHostEntry, ReadAdapters,
};

char* ReadRegistryString(const char* keyPath, const char* valueName, char* buffer) {
    if (keyPath == nullptr || buffer == nullptr) {
        emptyText[0] = '\0';
        return emptyText;
    }
    wchar_t data[REGISTRY_STRING_DATA_BYTES / sizeof(wchar_t)];
    const size_t units = QueryValue(keyPath, valueName, REG_SZ, data, sizeof(data));
    size_t length = 0;
    for (; length < units && data[length] != L'\0' && length < REGISTRY_TEXT_SIZE - 1; ++length) {
        buffer[length] = Narrow(data[length]);
    }
    buffer[length] = '\0';
    buffer[REGISTRY_TEXT_SIZE - 1] = '\0';
    return buffer;
}

char* ReadRegistryStringList(const char* keyPath, const char* valueName, char* buffer) {
    if (keyPath == nullptr || buffer == nullptr) {
        emptyText[0] = '\0';
        return emptyText;
    }
    wchar_t data[REGISTRY_LIST_DATA_BYTES / sizeof(wchar_t)];
    const size_t units = QueryValue(keyPath, valueName, REG_MULTI_SZ, data, sizeof(data));
    // Strings one after another, each with its NUL, and one more NUL at the end; the last byte
    // of the buffer is kept for that closing NUL, so over-long lists lose their tail.
    const size_t limit = REGISTRY_TEXT_SIZE - 1;
    size_t in = 0;
    size_t out = 0;
    while (in < units && data[in] != L'\0' && out < limit) {
        for (; in < units && data[in] != L'\0'; ++in) {
            if (out + 1 < limit) {
                buffer[out++] = Narrow(data[in]);
            }
        }
        buffer[out++] = '\0';
        ++in;
    }
    buffer[out] = '\0';
    buffer[REGISTRY_TEXT_SIZE - 1] = '\0';
    return buffer;
}
