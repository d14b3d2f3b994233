// The world's events and models. Rates are chosen so that a decade holds every kind of trouble
// many times over while the service's own pulse, not the world, sets the cost of a run.
#include "sim/world.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>

#include "config/config_test_seams.h"
#include "net/ipv4_platform.h"
#include "service/service.h"
#include "service/service_host.h"
#include "sim/journal.h"
#include "sim/observe.h"
#include "sim/oracle.h"
#include "sim/service_manager.h"
#include "sntp/sntp_packet.h"

Upstream upstreams[UPSTREAM_COUNT];
uint8_t settingVariant = SET_CLIENT_A;
char settingValue[256] = "";
SimTime settingSince = 0;
int32_t workstationListening = 1;
WorldCounts worldCounts = {};

namespace {
enum EventKind : uint32_t {
    EV_END = 0,
    EV_MINUTE,
    EV_YEAR,
    EV_ARRIVE,
    EV_CLIENT_REQUEST,
    EV_BURST,
    EV_BURST_REQUEST,
    EV_SETTING,
    EV_CONTROL,
    EV_STOP,
    EV_START,
    EV_WORKSTATION,
    EV_UPSTREAM_MODE,
    EV_UPSTREAM_STEP,
    EV_DRIFT,
    EV_PORT_HELD,
    EV_SOCKET_ERRORS,
    EV_RESOLVER,
    EV_THREADS_REFUSED,
};

// Mean times between the world's doings (exponential), and the spans of its spells.
const double MEAN_BETWEEN_SETTINGS_DAYS = 4.0;
const double QUICK_SECOND_SETTING = 0.1;        // chance that another write follows within 90 s
const double MEAN_BETWEEN_CONTROLS_DAYS = 3.0;
const double MEAN_BETWEEN_OTHER_CONTROLS_DAYS = 10.0;
const double NEAR_RESTART_CONTROL = 0.01;       // chance of a control 128 right after a thread start
const double NEAR_START_CONTROL = 0.15;         // ... right after a service start
const double DURING_RESTART = 0.005;            // chance of a control 128 or a stop during a restart
const SimTime DURING_RESTART_WINDOW = 1400 * NS_PER_MS;
const double MEAN_BETWEEN_STOPS_DAYS = 20.0;
const double STOP_SOON_AFTER_START = 0.05;
const double MEAN_WORKSTATION_UP_DAYS = 15.0;
const double MEAN_UPSTREAM_GOOD_DAYS = 8.0;
const double MEAN_BETWEEN_STEPS_DAYS = 60.0;
const double MEAN_BETWEEN_DRIFTS_DAYS = 5.0;
const double MEAN_PORT_FREE_DAYS = 30.0;
const double MEAN_SOCKETS_WORKING_DAYS = 45.0;
const double MEAN_RESOLVER_WORKING_DAYS = 20.0;
const double MEAN_BETWEEN_BURSTS_DAYS = 3.0;
const double MEAN_THREADS_STARTING_DAYS = 60.0;
const int64_t SYSTEM_DRIFT_MAX_PPB = 40000;     // 40 ppm: a poor crystal, 3.5 s a day
const int64_t UPSTREAM_DRIFT_MAX_PPB = 2000;
const SimTime SYSTEM_OFFSET_MAX = 90 * NS_PER_SECOND;
const SimTime UPSTREAM_OFFSET_MAX = 20 * NS_PER_MS;
const uint64_t LOSS_PER_MILLE = 3;
const uint64_t DUPLICATE_PER_MILLE = 2;
const uint64_t SPIKE_PER_MILLE = 10;            // a delay far beyond the usual: reordering
const SimTime DELAY_MIN = 200 * NS_PER_US;
const double DELAY_MEAN_MS = 2.0;
const SimTime DELAY_CAP = 50 * NS_PER_MS;
const SimTime SPIKE_MIN = 20 * NS_PER_MS;
const SimTime SPIKE_MAX = 300 * NS_PER_MS;
const SimTime PROCESSING_MIN = 20 * NS_PER_US;
const SimTime PROCESSING_MAX = 300 * NS_PER_US;
const uint16_t OTHER_PORT = 124;
const char TIME_HOST[] = "timehost";

char settingPath[600];
SimTime endAt = 0;
int32_t resolverTryAgain = 0;
uint32_t requestCounter = 0;
uint64_t stopGeneration = 0;  // the steady stream of stops belongs to the latest start

double UniformUnit() { return static_cast<double>(NextSimRandom() >> 11) * (1.0 / 9007199254740992.0); }

SimTime ExponentialTime(double meanSeconds) {
    const double u = 1.0 - UniformUnit();
    return static_cast<SimTime>(-std::log(u) * meanSeconds * 1e9);
}

SimTime LogUniformTime(double lowSeconds, double highSeconds) {
    const double l = std::log(lowSeconds);
    return static_cast<SimTime>(std::exp(l + UniformUnit() * (std::log(highSeconds) - l)) * 1e9);
}

void After(SimTime delay, uint32_t kind, uint32_t a = 0, uint64_t b = 0) { ScheduleEvent(simNow + delay, kind, a, b); }

SimTime PathDelay(Datagram* datagram) {
    SimTime delay = DELAY_MIN + ExponentialTime(DELAY_MEAN_MS / 1000.0);
    if (delay > DELAY_CAP) {
        delay = DELAY_CAP;
    }
    if (SimChance(SPIKE_PER_MILLE, 1000) != 0) {
        delay += SimRandomTime(SPIKE_MIN, SPIKE_MAX);
        ++worldCounts.delayed;
    }
    datagram->pathDelay = delay;
    return delay;
}

// Sends a datagram across the network after a wait (the sender's processing): lost, carried, or
// carried twice.
void Carry(Datagram* datagram, SimTime wait) {
    if (SimChance(LOSS_PER_MILLE, 1000) != 0) {
        ++worldCounts.lost;
        FreeDatagram(datagram);
        return;
    }
    datagram->sentAt = simNow + wait;
    if (SimChance(DUPLICATE_PER_MILLE, 1000) != 0) {
        Datagram* copy = NewDatagram();
        *copy = *datagram;
        copy->duplicate = 1;
        ++worldCounts.duplicated;
        After(wait + PathDelay(copy), EV_ARRIVE, DatagramIndex(copy));
    }
    After(wait + PathDelay(datagram), EV_ARRIVE, DatagramIndex(datagram));
}

void StoreStamp(uint8_t* at, uint64_t value) {
    for (int i = 7; i >= 0; --i) {
        at[i] = static_cast<uint8_t>(value);
        value >>= 8;
    }
}

int32_t UpstreamAt(uint32_t address) {
    for (uint32_t u = 0; u < UPSTREAM_COUNT; ++u) {
        if (upstreams[u].address == address) {
            return static_cast<int32_t>(u);
        }
    }
    return -1;
}

// An upstream answers a request that reached it, as its mode makes it.
void AnswerAtUpstream(Datagram* request) {
    const Upstream& upstream = upstreams[UpstreamAt(request->to)];
    const uint8_t mode = upstream.mode;
    if (mode == UP_SILENT || request->length != NTP_PACKET_SIZE) {
        FreeDatagram(request);
        return;
    }
    Datagram* answer = NewDatagram();
    answer->from = mode == UP_OTHER_ADDRESS ? IMPOSTOR_ADDRESS : upstream.address;
    answer->fromPort = mode == UP_OTHER_PORT ? OTHER_PORT : NTP_PORT;
    answer->to = request->from;
    answer->toPort = request->fromPort;
    answer->request = request->request;
    answer->requestDelay = request->pathDelay;
    answer->length = NTP_PACKET_SIZE;
    if (mode == UP_WRONG_SIZE) {
        answer->length = SimChance(1, 2) != 0 ? NTP_PACKET_SIZE - 1 : 60;
    }
    const SimTime processing = SimRandomTime(PROCESSING_MIN, PROCESSING_MAX);
    uint8_t* bytes = answer->bytes;
    bytes[0] = SNTP_ANSWER_TO_CLIENT;
    if (mode == UP_WRONG_MODE) {
        bytes[0] = SimChance(1, 2) != 0 ? 0x1B : 0x1D;  // mode 3 or 5
    } else if (mode == UP_VERSION_4) {
        bytes[0] = 0x24;
    } else if (mode == UP_ALARM) {
        bytes[0] = 0xDC;
    }
    bytes[NTP_STRATUM_OFFSET] = mode == UP_STRATUM_0 ? 0 : static_cast<uint8_t>(1 + SimRandomBelow(2));
    bytes[NTP_POLL_OFFSET] = request->bytes[NTP_POLL_OFFSET];
    bytes[NTP_PRECISION_OFFSET] = 0xEC;
    memcpy(bytes + NTP_REFERENCE_ID_OFFSET, "GPS ", 4);
    memcpy(bytes + NTP_ORIGINATE_OFFSET, request->bytes + NTP_TRANSMIT_OFFSET, NTP_STAMP_SIZE);
    if (mode == UP_NO_ECHO) {
        bytes[NTP_ORIGINATE_OFFSET + 7] ^= static_cast<uint8_t>(1 + SimRandomBelow(255));
    }
    StoreStamp(bytes + NTP_RECEIVE_OFFSET, NtpStampOf(ReadClockModel(&upstream.clock, simNow)));
    if (mode != UP_ZERO_TRANSMIT) {
        StoreStamp(bytes + NTP_TRANSMIT_OFFSET, NtpStampOf(ReadClockModel(&upstream.clock, simNow + processing)));
    }
    FreeDatagram(request);
    Carry(answer, processing);
}

void Arrive(uint32_t index) {
    Datagram* datagram = &datagrams[index];
    if (UpstreamAt(datagram->to) >= 0 && datagram->toPort == NTP_PORT) {
        AnswerAtUpstream(datagram);
    } else {
        DeliverToMachine(datagram);
    }
}

uint8_t PickRequestKind() {
    const uint64_t roll = SimRandomBelow(1000);
    if (roll < 880) {
        return REQ_CLIENT;
    }
    if (roll < 920) {
        return REQ_SYMMETRIC;
    }
    if (roll < 945) {
        return REQ_VERSION_4;
    }
    if (roll < 965) {
        return REQ_WRONG_SIZE;
    }
    if (roll < 980) {
        return REQ_ALARM;
    }
    if (roll < 990) {
        return REQ_BROADCAST;
    }
    return REQ_VERSION_1;
}

void SendClientRequest(uint32_t client, uint8_t kind) {
    static const uint8_t HEADERS[REQ_KIND_COUNT] = {0x1B, 0x19, 0x23, 0x1B, 0xDB, 0x1D, 0x0B};
    Datagram* request = NewDatagram();
    request->from = ClientAddress(client);
    request->fromPort = client % 3 == 0 ? NTP_PORT : static_cast<uint16_t>(32768 + client * 7);
    request->to = HOST_ADDRESS;
    request->toPort = NTP_PORT;
    request->request = ++requestCounter;
    request->length = kind == REQ_WRONG_SIZE ? (SimChance(1, 2) != 0 ? 47 : 49) : NTP_PACKET_SIZE;
    request->bytes[0] = HEADERS[kind];
    request->bytes[NTP_POLL_OFFSET] = static_cast<uint8_t>(4 + SimRandomBelow(7));
    // A transmit stamp of the request's own, so that its answer names it.
    StoreStamp(request->bytes + NTP_TRANSMIT_OFFSET, (static_cast<uint64_t>(0x80000000u | requestCounter) << 32) | client);
    ++worldCounts.requests;
    ++worldCounts.requestsByKind[kind];
    Carry(request, 0);
}

void StartBurst() {
    // Most of the installation at once (a power cut's end): more distinct clients than the 201
    // that one five-second span admits.
    uint32_t order[CLIENT_COUNT];
    for (uint32_t i = 0; i < CLIENT_COUNT; ++i) {
        order[i] = i;
    }
    const uint32_t clients = 215 + static_cast<uint32_t>(SimRandomBelow(CLIENT_COUNT - 215 + 1));
    const SimTime window = SimRandomTime(NS_PER_SECOND / 2, 4 * NS_PER_SECOND);
    for (uint32_t i = 0; i < clients; ++i) {
        const uint32_t pick = i + static_cast<uint32_t>(SimRandomBelow(CLIENT_COUNT - i));
        const uint32_t chosen = order[pick];
        order[pick] = order[i];
        order[i] = chosen;
        const uint32_t requests = SimChance(1, 4) != 0 ? 2 : 1;
        for (uint32_t r = 0; r < requests; ++r) {
            After(SimRandomTime(0, window), EV_BURST_REQUEST, chosen, PickRequestKind());
        }
    }
    ++worldCounts.bursts;
    Journal(J_BURST, clients, 0);
}

struct SettingText {
    const char* text;
    const char* value;  // what SNTP_IP reads as
};

const SettingText SETTING_TEXTS[SET_VARIANT_COUNT] = {
    {"# Vantor platform settings\nNODE_NAME CONTROLWS\nSNTP_IP 127.0.0.2\nLOG_LEVEL 2\n", "127.0.0.2"},
    {"NODE_NAME CONTROLWS\nSNTP_IP 127.0.0.3   # the second server\n", "127.0.0.3"},
    {"SNTP_IP timehost\n", "timehost"},
    {"SNTP_IP nohost\n", "nohost"},
    {"sntp_ip \"127.0.0.2\"\n", "127.0.0.2"},
    {"SNTP_IP 127.0.0.3\nOTHER x\nSNTP_IP 127.0.0.2\n", "127.0.0.2"},
    {"SNTP_IP 127.0.0.10\n", "127.0.0.10"},
    {"SNTP_IP 127.0.0.1\n", "127.0.0.1"},
    {"SNTP_IP 0.0.0.0\n", "0.0.0.0"},
    {"NODE_NAME CONTROLWS\nSNTP_IP\n", ""},
    {"", ""},
    {nullptr, ""},
    {nullptr, ""},
    {"SNTP_IP # 127.0.0.2\n", ""},
    {"SNTP_IP 127.0.0.", "127.0.0."},
};

uint8_t PickSetting() {
    static const uint16_t WEIGHTS[SET_VARIANT_COUNT] = {300, 100, 100, 30, 20, 10, 150, 50, 30, 30, 30, 50, 40, 30, 30};
    uint32_t total = 0;
    for (uint16_t weight : WEIGHTS) {
        total += weight;
    }
    uint64_t roll = SimRandomBelow(total);
    for (uint8_t variant = 0; variant < SET_VARIANT_COUNT; ++variant) {
        if (roll < WEIGHTS[variant]) {
            return variant;
        }
        roll -= WEIGHTS[variant];
    }
    return SET_CLIENT_A;
}

void WriteSetting(uint8_t variant) {
    settingVariant = variant;
    settingSince = simNow;
    snprintf(settingValue, sizeof settingValue, "%s", SETTING_TEXTS[variant].value);
    ++worldCounts.settings[variant];
    Journal(J_SETTING_WRITTEN, variant, 0);
    if (variant == SET_MISSING) {
        unlink(settingPath);
        return;
    }
    FILE* file = fopen(settingPath, "wb");
    if (file == nullptr) {
        SimFail("cannot write the setting file %s", settingPath);
    }
    if (variant == SET_DAMAGED_BYTES) {
        // Bytes of no key: control characters, high bytes, digits, quotes, hashes and breaks.
        static const char OTHERS[] = "0123456789 \t\"#\r\n.";
        const uint32_t length = 1 + static_cast<uint32_t>(SimRandomBelow(3000));
        for (uint32_t i = 0; i < length; ++i) {
            const uint64_t roll = SimRandomBelow(3);
            const int byte = roll == 0   ? static_cast<int>(SimRandomBelow(32))
                             : roll == 1 ? 128 + static_cast<int>(SimRandomBelow(128))
                                         : OTHERS[SimRandomBelow(sizeof OTHERS - 1)];
            fputc(byte, file);
        }
    } else {
        fputs(SETTING_TEXTS[variant].text, file);
    }
    fclose(file);
}

void ChangeUpstreamMode(uint32_t u) {
    Upstream& upstream = upstreams[u];
    if (upstream.mode != UP_GOOD) {
        upstream.mode = UP_GOOD;
        After(ExponentialTime(MEAN_UPSTREAM_GOOD_DAYS * 86400), EV_UPSTREAM_MODE, u);
    } else {
        // Silence a third of the time; the rest spread over every kind of bad answer.
        const uint64_t roll = SimRandomBelow(30);
        upstream.mode = roll < 10 ? static_cast<uint8_t>(UP_SILENT)
                                  : static_cast<uint8_t>(UP_WRONG_SIZE + roll % (UP_MODE_COUNT - UP_WRONG_SIZE));
        const SimTime spell = upstream.mode == UP_SILENT ? LogUniformTime(2, 3 * 86400) : LogUniformTime(60, 2 * 86400);
        After(spell, EV_UPSTREAM_MODE, u);
    }
    upstream.modeSince = simNow;
    ++worldCounts.upstreamModes[upstream.mode];
    Journal(J_UPSTREAM_MODE, u, upstream.mode);
}

int64_t SignedRandom(int64_t magnitude) {
    return static_cast<int64_t>(SimRandomBelow(static_cast<uint64_t>(2 * magnitude + 1))) - magnitude;
}

void Toggle(int32_t* flag, uint32_t kind, double meanOffDays, double spellLow, double spellHigh, uint16_t journal,
            uint64_t* count) {
    if (*flag != 0) {
        *flag = 0;
        After(ExponentialTime(meanOffDays * 86400), kind);
    } else {
        *flag = 1;
        ++*count;
        After(LogUniformTime(spellLow, spellHigh), kind);
    }
    Journal(journal, *flag, 0);
}

int64_t UnixOfCivil(int64_t year, unsigned month, unsigned day) {
    year -= month <= 2 ? 1 : 0;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const unsigned yearOfEra = static_cast<unsigned>(year - era * 400);
    const unsigned dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const unsigned dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return (era * 146097 + static_cast<int64_t>(dayOfEra) - 719468) * 86400;
}

void ScheduleYearEnds(const RunPlan* plan) {
    for (int64_t year = 1970; year < 2200; ++year) {
        const int64_t at = UnixOfCivil(year, 1, 1);
        if (at > plan->fromUnixSeconds && at < plan->untilUnixSeconds) {
            ScheduleEvent((at - plan->fromUnixSeconds) * NS_PER_SECOND, EV_YEAR, static_cast<uint32_t>(year - 1), 0);
        }
    }
}

double requestInterval = 8.0;
}  // namespace

int32_t UpstreamOfText(const char* text) {
    if (strcmp(text, "127.0.0.2") == 0 || strcmp(text, TIME_HOST) == 0) {
        return 0;
    }
    if (strcmp(text, "127.0.0.3") == 0) {
        return 1;
    }
    return -1;
}

int32_t WorldLookupHost(const char* name, uint32_t* address) {
    int32_t result = 1;  // no such name
    if (strcmp(name, TIME_HOST) == 0) {
        result = resolverTryAgain != 0 ? RESOLVE_TRY_AGAIN : 0;
        if (result == 0) {
            *address = upstreams[0].address;
        }
    }
    Journal(J_RESOLVE, result, 0);
    OracleLookup(result);
    return result;
}

void CarryFromMachine(Datagram* datagram) {
    if (UpstreamAt(datagram->to) >= 0 && datagram->toPort == NTP_PORT) {
        ++worldCounts.exchangesAsked;
        Carry(datagram, 0);
        return;
    }
    FreeDatagram(datagram);  // answers to the clients: the oracle has read them, nothing else will
}

void InitWorld(const RunPlan* plan, const char* scratchRoot) {
    simEpochUnixSeconds = plan->fromUnixSeconds;
    endAt = (plan->untilUnixSeconds - plan->fromUnixSeconds) * NS_PER_SECOND;
    requestInterval = plan->requestIntervalSeconds;
    const int64_t trueStartNs = plan->fromUnixSeconds * NS_PER_SECOND;

    // The tick count starts a few minutes before its wrap: the first of the run's wraps comes at once.
    tickAtStartMs = static_cast<uint32_t>(0x100000000ULL - (60000 + SimRandomBelow(540000)));
    timerPhase = static_cast<SimTime>(SimRandomBelow(static_cast<uint64_t>(TIMER_TICK)));
    SetClockModel(&systemClock, trueStartNs + SignedRandom(SYSTEM_OFFSET_MAX), 0);
    systemClock.driftPpb = SignedRandom(SYSTEM_DRIFT_MAX_PPB);
    for (uint32_t u = 0; u < UPSTREAM_COUNT; ++u) {
        upstreams[u].address = UPSTREAM_ADDRESS[u];
        SetClockModel(&upstreams[u].clock, trueStartNs + SignedRandom(UPSTREAM_OFFSET_MAX), 0);
        upstreams[u].clock.driftPpb = SignedRandom(UPSTREAM_DRIFT_MAX_PPB);
        upstreams[u].mode = UP_GOOD;
        After(ExponentialTime(MEAN_UPSTREAM_GOOD_DAYS * 86400), EV_UPSTREAM_MODE, u);
        After(ExponentialTime(MEAN_BETWEEN_STEPS_DAYS * 86400), EV_UPSTREAM_STEP, u);
    }

    char directory[512];
    snprintf(directory, sizeof directory, "%s/Data", scratchRoot);
    mkdir(directory, 0755);
    snprintf(directory, sizeof directory, "%s/Data/System", scratchRoot);
    mkdir(directory, 0755);
    snprintf(settingPath, sizeof settingPath, "%s/Vantor.dat", directory);
    OverrideInstallRoot(scratchRoot);
    InstallMachineIpv4();
    WriteSetting(SET_CLIENT_A);  // an installation as usually set up: a client of its server

    ScheduleEvent(endAt, EV_END, 0, 0);
    ScheduleYearEnds(plan);
    After(NS_PER_MINUTE, EV_MINUTE);
    After(ExponentialTime(requestInterval), EV_CLIENT_REQUEST);
    After(ExponentialTime(MEAN_BETWEEN_BURSTS_DAYS * 86400), EV_BURST);
    After(ExponentialTime(MEAN_BETWEEN_SETTINGS_DAYS * 86400), EV_SETTING);
    After(ExponentialTime(MEAN_BETWEEN_CONTROLS_DAYS * 86400), EV_CONTROL, CONTROL_FORCE_RESTART);
    After(ExponentialTime(MEAN_BETWEEN_OTHER_CONTROLS_DAYS * 86400), EV_CONTROL, 0);
    After(ExponentialTime(MEAN_WORKSTATION_UP_DAYS * 86400), EV_WORKSTATION);
    After(ExponentialTime(MEAN_BETWEEN_DRIFTS_DAYS * 86400), EV_DRIFT);
    After(ExponentialTime(MEAN_PORT_FREE_DAYS * 86400), EV_PORT_HELD);
    After(ExponentialTime(MEAN_SOCKETS_WORKING_DAYS * 86400), EV_SOCKET_ERRORS);
    After(ExponentialTime(MEAN_RESOLVER_WORKING_DAYS * 86400), EV_RESOLVER);
    After(ExponentialTime(MEAN_THREADS_STARTING_DAYS * 86400), EV_THREADS_REFUSED);
    After(0, EV_START);
}

void RemoveWorldFiles() { unlink(settingPath); }

void WorldThreadStarted() {
    if (UniformUnit() < NEAR_RESTART_CONTROL) {
        ++worldCounts.controls128NearRestart;
        After(SimRandomTime(0, 2500 * NS_PER_MS), EV_CONTROL, CONTROL_FORCE_RESTART, 1);
    }
}

void WorldRestartBegun() {
    if (UniformUnit() >= DURING_RESTART) {
        return;
    }
    if (SimChance(1, 4) != 0) {
        ++worldCounts.stopsNearRestart;
        After(SimRandomTime(0, DURING_RESTART_WINDOW), EV_STOP, 1);
    } else {
        ++worldCounts.controls128NearRestart;
        After(SimRandomTime(0, DURING_RESTART_WINDOW), EV_CONTROL, CONTROL_FORCE_RESTART, 1);
    }
}

void HandleWorldEvent(const SimEvent& event) {
    switch (event.kind) {
    case EV_END:
        OracleFinal();
        EndRun();
        return;
    case EV_MINUTE:
        OracleMinute();
        After(NS_PER_MINUTE, EV_MINUTE);
        return;
    case EV_YEAR:
        OracleYear(static_cast<int32_t>(event.a));
        return;
    case EV_ARRIVE:
        Arrive(event.a);
        return;
    case EV_CLIENT_REQUEST:
        SendClientRequest(static_cast<uint32_t>(SimRandomBelow(CLIENT_COUNT)), PickRequestKind());
        After(ExponentialTime(requestInterval), EV_CLIENT_REQUEST);
        return;
    case EV_BURST:
        StartBurst();
        After(ExponentialTime(MEAN_BETWEEN_BURSTS_DAYS * 86400), EV_BURST);
        return;
    case EV_BURST_REQUEST:
        SendClientRequest(event.a, static_cast<uint8_t>(event.b));
        return;
    case EV_SETTING:
        WriteSetting(PickSetting());
        After(UniformUnit() < QUICK_SECOND_SETTING ? LogUniformTime(0.5, 90)
                                                    : ExponentialTime(MEAN_BETWEEN_SETTINGS_DAYS * 86400),
              EV_SETTING);
        return;
    case EV_CONTROL: {
        static const uint32_t OTHERS[] = {2, 3, 4, 129, 200, 255};
        const uint32_t control = event.a != 0 ? event.a : OTHERS[SimRandomBelow(6)];
        if (SendControl(control) == 0) {
            if (control == CONTROL_FORCE_RESTART) {
                ++worldCounts.controls128;
            } else {
                ++worldCounts.otherControls;
            }
        }
        if (event.b == 0) {  // the steady stream; the ones near a restart come on their own
            After(ExponentialTime((event.a != 0 ? MEAN_BETWEEN_CONTROLS_DAYS : MEAN_BETWEEN_OTHER_CONTROLS_DAYS) * 86400),
                  EV_CONTROL, event.a);
        }
        return;
    }
    case EV_STOP:
        if (event.a == 0 && event.b != stopGeneration) {
            return;  // the steady stream's stop of an earlier run: a later start scheduled its own
        }
        if (SendControl(SimChance(1, 5) != 0 ? HOST_CONTROL_SHUTDOWN : HOST_CONTROL_STOP) == 0) {
            ++worldCounts.stops;
            After(LogUniformTime(1, 86400), EV_START);
        } else if (event.a == 0) {
            After(NS_PER_SECOND, EV_STOP, 0, event.b);  // the steady stream's stop waits for a running service
        }
        return;
    case EV_START:
        if (service.running != 0 && service.stopAsked == 0) {
            return;  // this start's stop never reached the service: it still runs
        }
        if (service.running != 0 || CountFibers(ROLE_DISPATCHER) != 0 || StartService() != 0) {
            After(NS_PER_SECOND, EV_START);  // the last process has not quite gone
            return;
        }
        ++worldCounts.starts;
        ++stopGeneration;
        After(UniformUnit() < STOP_SOON_AFTER_START ? SimRandomTime(100 * NS_PER_MS, 3 * NS_PER_SECOND)
                                                     : ExponentialTime(MEAN_BETWEEN_STOPS_DAYS * 86400),
              EV_STOP, 0, stopGeneration);
        if (UniformUnit() < NEAR_START_CONTROL) {
            ++worldCounts.controls128NearRestart;
            After(SimRandomTime(0, 3 * NS_PER_SECOND), EV_CONTROL, CONTROL_FORCE_RESTART, 1);
        }
        return;
    case EV_WORKSTATION:
        if (workstationListening != 0) {
            workstationListening = 0;
            ++worldCounts.workstationDown;
            After(LogUniformTime(60, 2 * 86400), EV_WORKSTATION);
        } else {
            workstationListening = 1;
            After(ExponentialTime(MEAN_WORKSTATION_UP_DAYS * 86400), EV_WORKSTATION);
        }
        OracleWorkstation(workstationListening);
        Journal(J_WORKSTATION, workstationListening, 0);
        return;
    case EV_UPSTREAM_MODE:
        ChangeUpstreamMode(event.a);
        return;
    case EV_UPSTREAM_STEP: {
        Upstream& upstream = upstreams[event.a];
        const SimTime step = (SimChance(1, 2) != 0 ? 1 : -1) * LogUniformTime(0.005, 5);
        SetClockModel(&upstream.clock, ReadClockModel(&upstream.clock, simNow) + step, simNow);
        upstream.clock.driftPpb = SignedRandom(UPSTREAM_DRIFT_MAX_PPB);
        ++worldCounts.upstreamSteps;
        Journal(J_UPSTREAM_STEP, event.a, step);
        After(ExponentialTime(MEAN_BETWEEN_STEPS_DAYS * 86400), EV_UPSTREAM_STEP, event.a);
        return;
    }
    case EV_DRIFT:
        SetClockDrift(&systemClock, SignedRandom(SYSTEM_DRIFT_MAX_PPB), simNow);
        ++worldCounts.driftChanges;
        Journal(J_DRIFT, systemClock.driftPpb, 0);
        After(ExponentialTime(MEAN_BETWEEN_DRIFTS_DAYS * 86400), EV_DRIFT);
        return;
    case EV_PORT_HELD:
        Toggle(&portHeldElsewhere, EV_PORT_HELD, MEAN_PORT_FREE_DAYS, 10, 6 * 3600, J_PORT_HELD, &worldCounts.portHeld);
        return;
    case EV_SOCKET_ERRORS:
        Toggle(&socketWaitsFail, EV_SOCKET_ERRORS, MEAN_SOCKETS_WORKING_DAYS, 1, 60, J_SOCKET_ERRORS,
               &worldCounts.socketErrorSpells);
        return;
    case EV_RESOLVER:
        Toggle(&resolverTryAgain, EV_RESOLVER, MEAN_RESOLVER_WORKING_DAYS, 1, 1800, J_RESOLVER_SPELL,
               &worldCounts.resolverSpells);
        return;
    case EV_THREADS_REFUSED:
        Toggle(&threadStartsFail, EV_THREADS_REFUSED, MEAN_THREADS_STARTING_DAYS, 30, 6 * 3600, J_THREADS_REFUSED,
               &worldCounts.threadRefusalSpells);
        return;
    default:
        SimFail("unknown world event %u", event.kind);
    }
}
