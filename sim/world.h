// The world around the simulated machine: two upstream time servers with clocks of their own and
// every bad-answer kind, the network between them (delay, loss, duplication, reordering), 250
// clients of the service in the server role with bursts, the setting file rewritten at random
// moments, controls, stops and starts of the service, the workstation that listens or not, a
// program that takes port 123, failing socket waits, a name service that asks to try again. Every
// choice comes from the run's one random generator.
#pragma once

#include <cstdint>

#include "sim/machine.h"
#include "sim/network.h"
#include "sim/scheduler.h"

enum UpstreamMode : uint8_t {
    UP_GOOD = 0,
    UP_SILENT,
    UP_WRONG_SIZE,      // 47 or 60 bytes
    UP_WRONG_MODE,      // not mode 4
    UP_VERSION_4,
    UP_ALARM,           // leap indicator 3
    UP_STRATUM_0,
    UP_ZERO_TRANSMIT,
    UP_OTHER_ADDRESS,   // the answer comes from another address
    UP_OTHER_PORT,      // ... or from another port
    UP_NO_ECHO,         // the originate field is not the request's transmit stamp
    UP_MODE_COUNT,
};

struct Upstream {
    uint32_t address;
    ClockModel clock;
    uint8_t mode;
    SimTime modeSince;
};

const uint32_t UPSTREAM_COUNT = 2;
extern Upstream upstreams[UPSTREAM_COUNT];

// The setting file as the world last wrote it: what SNTP_IP reads as.
enum SettingVariant : uint8_t {
    SET_CLIENT_A = 0,       // SNTP_IP 127.0.0.2
    SET_CLIENT_B,           // SNTP_IP 127.0.0.3, with a comment
    SET_CLIENT_NAME,        // SNTP_IP timehost (resolves to 127.0.0.2)
    SET_CLIENT_UNKNOWN,     // SNTP_IP nohost (never resolves)
    SET_CLIENT_QUOTED,      // sntp_ip "127.0.0.2", lower-case key
    SET_CLIENT_DUPLICATE,   // 127.0.0.3 then 127.0.0.2: the last one counts
    SET_SERVER_OWN,         // SNTP_IP 127.0.0.10, this machine's address
    SET_SERVER_LOOPBACK,    // SNTP_IP 127.0.0.1
    SET_SERVER_ZERO,        // SNTP_IP 0.0.0.0
    SET_EMPTY_VALUE,        // SNTP_IP with nothing after it
    SET_EMPTY_FILE,
    SET_MISSING,            // no Vantor.dat at all
    SET_DAMAGED_BYTES,      // binary garbage
    SET_DAMAGED_COMMENT,    // SNTP_IP # 127.0.0.2: the key is not stored
    SET_DAMAGED_CUT,        // SNTP_IP 127.0.0. : no address, so a name that never resolves
    SET_VARIANT_COUNT,
};

extern uint8_t settingVariant;
extern char settingValue[256];  // SNTP_IP as the file now gives it ("" when none)
extern SimTime settingSince;
extern int32_t workstationListening;

// Run limits and the calendar: true time at simNow 0, and when the run ends.
struct RunPlan {
    int64_t fromUnixSeconds;
    int64_t untilUnixSeconds;
    double requestIntervalSeconds;  // mean time between the clients' background requests
};

void InitWorld(const RunPlan* plan, const char* scratchRoot);
void HandleWorldEvent(const SimEvent& event);
void RemoveWorldFiles();

// The upstream an SNTP_IP text names (by address or by host name), or -1.
int32_t UpstreamOfText(const char* text);
// The world carries a datagram sent by the machine.
void CarryFromMachine(Datagram* datagram);
// A time thread was just created: now and then the world sends a control 128 right after.
void WorldThreadStarted();
// A stop or restart of synchronisation has begun: now and then a control 128 or a stop comes
// while it runs.
void WorldRestartBegun();

// What the world did, for the summary.
struct WorldCounts {
    uint64_t requests;
    uint64_t requestsByKind[8];
    uint64_t bursts;
    uint64_t exchangesAsked;  // requests of the machine's client to an upstream
    uint64_t upstreamModes[UP_MODE_COUNT];
    uint64_t upstreamSteps;
    uint64_t settings[SET_VARIANT_COUNT];
    uint64_t controls128;
    uint64_t controls128NearRestart;
    uint64_t otherControls;
    uint64_t stops;
    uint64_t starts;
    uint64_t workstationDown;
    uint64_t portHeld;
    uint64_t socketErrorSpells;
    uint64_t resolverSpells;
    uint64_t threadRefusalSpells;
    uint64_t stopsNearRestart;
    uint64_t driftChanges;
    uint64_t lost;
    uint64_t duplicated;
    uint64_t delayed;  // delayed beyond the usual (reordering)
};
extern WorldCounts worldCounts;

// Request kinds of the clients.
enum RequestKind : uint8_t {
    REQ_CLIENT = 0,   // version 3, mode 3: answered
    REQ_SYMMETRIC,    // version 3, mode 1: answered in mode 2
    REQ_VERSION_4,
    REQ_WRONG_SIZE,
    REQ_ALARM,        // leap indicator 3
    REQ_BROADCAST,    // mode 5
    REQ_VERSION_1,
    REQ_KIND_COUNT,
};
