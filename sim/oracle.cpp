// The oracle's models and checks, and the observers the twins call.
#include "sim/oracle.h"

#include <arpa/inet.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "net/ipv4_platform.h"
#include "net/net_test_seams.h"
#include "net/socket_platform.h"
#include "service/service_host.h"
#include "sim/allocations.h"
#include "sim/journal.h"
#include "sim/machine.h"
#include "sim/observe.h"
#include "sim/service_manager.h"
#include "sim/world.h"
#include "sntp/sntp_packet.h"
#include "sntp/sntp_troubles.h"
#include "trouble/trouble_queue.h"
#include "trouble/workstation_report.h"

namespace {
// Limits of the promises.
const SimTime CLOCK_TOLERANCE = 1 * NS_PER_MS;
const SimTime START_DELAY_MAX = 119 * NS_PER_SECOND;
// A countdown's exchange comes its whole seconds after its anchor, however many steps it counts:
// either way by up to the anchor's reading of the tick count and the last step's late end.
const SimTime COUNTDOWN_ALLOWANCE = TICK_COUNT_LAG_MAX + SLEEP_LATENCY_MAX;
const SimTime DAILY_DEADLINE = NS_PER_DAY + START_DELAY_MAX + COUNTDOWN_ALLOWANCE;
const SimTime STALL_LIMIT = 30 * NS_PER_SECOND;  // the loop, a control, a join
const uint32_t SUPERVISION_STEP_MS_MAX = 100;    // troubles reach the workstation within 100 ms
const SimTime SETTLED_AFTER = 150 * NS_PER_SECOND;  // two re-checks and a restart
const int64_t PEER_KEEP_SECONDS = 5;
const int64_t PEER_GONE_AFTER_SECONDS = 7;       // swept by then: a sweep runs every second
const uint64_t SERVER_PEER_LIMIT = 201;
const int32_t SILENCES_BEFORE_TROUBLE = 5;
const uint32_t TIME_THREADS_MAX = 1;
const uint32_t SOCKETS_MAX = 1;
const int64_t ALLOCATIONS_MAX = 4000;
const int64_t RETAINED_MAX = 16;  // first-use tables that live as long as the process
const uint32_t EXPECTED_CAPACITY = 8192;
const uint32_t CODES = SNTP_RESULT_COUNT;
const uint32_t REPORT_TEXT_UNITS = WORKSTATION_REPORT_TEXT_UNITS - 1;

// ---- The trouble rules, as the workstation must see them ----

struct ExpectedReport {
    SimTime at;
    uint8_t code;
    uint8_t state;
};

ExpectedReport expected[EXPECTED_CAPACITY];
uint32_t expectedHead = 0;
uint32_t expectedCount = 0;
uint32_t modelMask = 0;            // the service's set of active troubles, as the rules keep it
uint8_t heldByRules[CODES];        // what the workstation holds, by the rules
uint8_t heldByWorkstation[CODES];  // what it holds, by what it received
int32_t sinkInstalled = 0;

uint64_t setsWritten[CODES];
uint64_t clearsWritten[CODES];
uint64_t reportsLost = 0;          // written while no workstation listened
uint64_t undeliveredAtStop = 0;
uint64_t suppressedByStop = 0;

void Emit(uint8_t code, uint8_t state) {
    if (sinkInstalled == 0) {
        return;
    }
    if (service.loopEnded != 0) {
        ++undeliveredAtStop;  // queued after the last drain: never delivered
        return;
    }
    if (expectedCount == EXPECTED_CAPACITY) {
        SimFail("more than %u trouble reports waiting for delivery", EXPECTED_CAPACITY);
    }
    ExpectedReport& entry = expected[(expectedHead + expectedCount) % EXPECTED_CAPACITY];
    entry.at = simNow;
    entry.code = code;
    entry.state = state;
    ++expectedCount;
}

// SetSntpTrouble's rule: nothing at all while a stop is asked for; otherwise a set report (no
// test for "already set") and the bit.
void RuleSet(uint8_t code) {
    if (stopRequested.load() != 0) {
        ++suppressedByStop;
        return;
    }
    Emit(code, static_cast<uint8_t>(TROUBLE_SET));
    modelMask |= 1u << code;
}

// ClearSntpTrouble's rule: while any trouble is active, a clear report for this code, raised
// or not.
void RuleClear(uint8_t code) {
    if (modelMask == 0) {
        return;
    }
    Emit(code, static_cast<uint8_t>(TROUBLE_CLEARED));
    modelMask &= ~(1u << code);
}

void RuleClearAll() {
    for (uint8_t code = 1; code < CODES; ++code) {
        RuleClear(code);
    }
    modelMask = 0;
}

// ---- The client's exchanges ----

struct ExchangeRecord {
    uint8_t active;
    uint8_t requestSent;
    uint8_t datagramRead;
    uint8_t waitFailed;
    uint8_t stopSeen;      // a half-second wait ended empty while a stop was asked for
    int32_t firstCode;     // the rules' verdict on the first datagram read
    int32_t lookupResult;
    uint32_t lookups;
    uint32_t server;
    uint8_t stamp[NTP_STAMP_SIZE];
    int32_t upstream;
    SimTime requestDelay;
    SimTime answerDelay;
    uint32_t clockWrites;
    SimTime sentAt;
};

ExchangeRecord exchange = {};
SimTime lastExchangeEnd = 0;
uint32_t exchangesThisThread = 0;
int32_t lastExchangeResult = SNTP_OK;
SimFiber* clientFiber = nullptr;
char clientText[256] = "";
int32_t clientUpstream = -1;
SimTime clientStartedAt = 0;
// Since when the service has been the client of this same server without a start of its own, a
// control 128 or a change of role: the minute's re-check restarting it does not count, as the
// promise of a setting a day is the service's, whatever restarts it does by itself.
SimTime clientRunSince = 0;
uint8_t lastStartCause = 0;  // 0 process start, 1 control, 2 the re-check
uint8_t lastEndedRole = 0;
uint64_t clientRecheckRestarts = 0;
int32_t silences = 0;
SimTime lastClockSetAt = 0;
SimTime lastUnhealthyAt = 0;

uint64_t clockSettings = 0;
SimTime worstClockError = 0;
SimTime worstClockDeviation = 0;
uint64_t settingsAfterEra = 0;
uint64_t exchangeResults[CODES];
const int64_t ERA_WRAP_UNIX_SECONDS = 2085978496;  // 2036-02-07 06:28:16

// The checks of an answer in the order the client makes them; the first failing one decides.
int32_t ClassifyAnswer(const Datagram* datagram) {
    const uint8_t* answer = datagram->bytes;
    if (datagram->length != NTP_PACKET_SIZE) {
        return SNTP_INVALID_RESPONSE;
    }
    if (datagram->from != exchange.server || datagram->fromPort != SNTP_PORT) {
        return SNTP_INCONSISTENT_ADDRESS;
    }
    if (memcmp(answer + NTP_ORIGINATE_OFFSET, exchange.stamp, NTP_STAMP_SIZE) != 0) {
        return SNTP_INCONSISTENT_ADDRESS;
    }
    if ((answer[0] & 0x07) != 4) {
        return SNTP_INVALID_RESPONSE;
    }
    if ((answer[0] & 0x38) != 0x18) {
        return SNTP_INCOMPATIBLE_VERSION;
    }
    if ((answer[0] & 0xC0) == 0xC0) {
        return SNTP_NOT_SYNCHRONISED;
    }
    if (answer[NTP_STRATUM_OFFSET] == 0) {
        return SNTP_UNKNOWN_ERROR;
    }
    static const uint8_t ZERO[NTP_STAMP_SIZE] = {};
    if (memcmp(answer + NTP_TRANSMIT_OFFSET, ZERO, NTP_STAMP_SIZE) == 0) {
        return SNTP_NOT_SYNCHRONISED;
    }
    return SNTP_OK;
}

// The client's schedule, from the countdown's anchor (the thread's start, or the end of the last
// ladder): the first exchange 59..118 s after the start, the next one 86 399 s after a success,
// 1199 s after a failure, each within COUNTDOWN_ALLOWANCE; the ladder's attempts straight after
// each other.
void CheckExchangeStart() {
    SimTime earliest = 0;
    SimTime latest = 0;
    SimTime allowance = COUNTDOWN_ALLOWANCE;
    const char* what = "";
    const bool first = exchangesThisThread == 0;
    if (first) {
        earliest = 59 * NS_PER_SECOND;
        latest = 118 * NS_PER_SECOND;
        what = "the first exchange after the start";
    } else if (lastExchangeResult == SNTP_OK) {
        earliest = 86399 * NS_PER_SECOND;
        latest = earliest;
        what = "the exchange a day after a success";
    } else if (lastExchangeResult == SNTP_NO_RESPONSE && silences != 0) {
        allowance = 0;
        what = "the ladder's next attempt";
    } else {
        earliest = 1199 * NS_PER_SECOND;
        latest = earliest;
        what = "the exchange 1200 s after a failure";
    }
    const SimTime since = simNow - (first ? clientStartedAt : lastExchangeEnd);
    if (since < earliest - allowance || since > latest + allowance) {
        SimFail("%s began after %.3f s", what, static_cast<double>(since) / 1e9);
    }
}

void BeginExchange() {
    const uint8_t wasActive = exchange.active;
    CheckExchangeStart();
    memset(&exchange, 0, sizeof exchange);
    exchange.upstream = -1;
    exchange.active = 1;
    if (wasActive != 0) {
        SimFail("the client raised its priority twice without an exchange ending");
    }
}

// A silent attempt waits its time-out in half-second selects, one more than the time-out holds:
// 5.5, 60.5, 120.5, 240.5 and 480.5 s for the ladder's five. Each select may end a timer tick
// late: the attempt's time-out is stated in selects, so their lateness adds up.
void CheckSilentAttempt() {
    static const SimTime TIMEOUTS_S[SILENCES_BEFORE_TROUBLE] = {5, 60, 120, 240, 480};
    const SimTime polls = TIMEOUTS_S[silences] * 2 + 1;
    const SimTime want = polls * 500 * NS_PER_MS;
    const SimTime took = simNow - exchange.sentAt;  // after a name resolution that may have waited
    if (took < want || took > want + polls * SLEEP_LATENCY_MAX + NS_PER_MS) {
        SimFail("a silent attempt of the ladder (the %d. in a row) waited %.3f s, not %.1f s", silences + 1,
                static_cast<double>(took) / 1e9, static_cast<double>(want) / 1e9);
    }
}

void EndExchange() {
    int32_t result = SNTP_NO_RESPONSE;
    if (exchange.lookups > 0 && exchange.lookupResult != 0) {
        if (exchange.lookupResult == RESOLVE_TRY_AGAIN && exchange.lookups < 4) {
            SimFail("the client gave up resolving after %u attempts (try again each time)", exchange.lookups);
        }
        result = SNTP_CANNOT_RESOLVE;
    } else if (exchange.datagramRead != 0) {
        result = exchange.firstCode;
    } else if (exchange.waitFailed != 0 || exchange.stopSeen != 0) {
        result = SNTP_SOCKET_ERROR;
    }
    exchange.active = 0;
    ++exchangeResults[result];
    if ((result == SNTP_OK) != (exchange.clockWrites == 1)) {
        SimFail("a good answer must set the clock once and nothing else may: expected result %d, %u settings", result,
                exchange.clockWrites);
    }
    if (result == SNTP_OK) {
        silences = 0;
        RuleClear(SNTP_NO_RESPONSE);
    } else {
        lastUnhealthyAt = simNow;
        if (result == SNTP_NO_RESPONSE) {
            CheckSilentAttempt();
            if (++silences == SILENCES_BEFORE_TROUBLE) {
                silences = 0;
                RuleSet(SNTP_NO_RESPONSE);
            }
        } else {
            silences = 0;
            RuleSet(static_cast<uint8_t>(result));
        }
    }
    lastExchangeEnd = simNow;
    lastExchangeResult = result;
    ++exchangesThisThread;
    Journal(J_EXCHANGE_END, result, silences);
}

// ---- The server's admission and answers ----

struct PendingRead {
    uint8_t active;
    uint8_t valid;       // a request the rules answer when admitted
    uint8_t mustAdmit;   // 1 must, 0 must not, 2 either
    uint8_t answered;
    uint8_t header;
    uint8_t poll;
    uint16_t port;
    uint32_t client;
    uint32_t address;
    uint8_t transmit[NTP_STAMP_SIZE];
    int64_t wallSeconds;
};

const int64_t NEVER_HEARD = INT64_MIN / 2;
uint32_t serverSocketSerial = 0;
int64_t admittedSure[CLIENT_COUNT];   // wall second of the last admission known to have happened
int64_t admittedMaybe[CLIENT_COUNT];  // ... or that may have happened
PendingRead pending = {};
int32_t serverNotStartedPending = 0;

uint64_t answers = 0;
uint64_t refused = 0;
uint64_t ignoredInvalid = 0;
uint64_t peakPeers = 0;

void ResetAdmission() {
    for (uint32_t c = 0; c < CLIENT_COUNT; ++c) {
        admittedSure[c] = NEVER_HEARD;
        admittedMaybe[c] = NEVER_HEARD;
    }
    pending.active = 0;
}

int32_t ClientIndex(uint32_t address) {
    const uint32_t b = (address >> 16) & 0xFF;
    const uint32_t c = address >> 24;
    if ((address & 0xFFFF) != 0x017F || c == 0) {
        return -1;
    }
    const uint32_t index = b * 250 + c - 1;
    return index < CLIENT_COUNT ? static_cast<int32_t>(index) : -1;
}

void ResolvePending() {
    if (pending.active == 0) {
        return;
    }
    pending.active = 0;
    const uint32_t c = pending.client;
    if (pending.valid != 0) {
        if (pending.answered != 0) {
            admittedSure[c] = pending.wallSeconds;
            admittedMaybe[c] = pending.wallSeconds;
        } else if (pending.mustAdmit == 1) {
            SimFail("the server did not answer an admitted request of client %u", c);
        } else {
            ++refused;
        }
        return;
    }
    ++ignoredInvalid;
    if (pending.mustAdmit == 1) {
        admittedSure[c] = pending.wallSeconds;
        admittedMaybe[c] = pending.wallSeconds;
    } else if (pending.mustAdmit == 2) {
        admittedMaybe[c] = pending.wallSeconds;
    }
}

bool ValidRequest(const Datagram* datagram) {
    const uint8_t header = datagram->bytes[0];
    const uint8_t mode = header & 0x07;
    return datagram->length == NTP_PACKET_SIZE && (mode == 3 || mode == 1) && (header & 0x38) == 0x18 &&
           (header & 0xC0) == 0;
}

void ServerRead(const Datagram* datagram) {
    ResolvePending();
    const int32_t c = ClientIndex(datagram->from);
    if (c < 0) {
        SimFail("the server read a datagram from an address no client has");
    }
    const int64_t now = MachineWallSeconds();
    uint32_t sure = 0;
    uint32_t maybe = 0;
    for (uint32_t i = 0; i < CLIENT_COUNT; ++i) {
        sure += now - admittedSure[i] <= PEER_KEEP_SECONDS ? 1 : 0;
        maybe += now - admittedMaybe[i] <= PEER_GONE_AFTER_SECONDS ? 1 : 0;
    }
    if (maybe > peakPeers) {
        peakPeers = maybe;
    }
    uint8_t mustAdmit = 2;
    if (now - admittedSure[c] <= PEER_KEEP_SECONDS) {
        mustAdmit = 1;  // a known sender is always admitted
    } else if (now - admittedMaybe[c] <= PEER_GONE_AFTER_SECONDS) {
        mustAdmit = maybe - 1 < SERVER_PEER_LIMIT ? 1 : 2;
    } else if (maybe < SERVER_PEER_LIMIT) {
        mustAdmit = 1;
    } else if (sure >= SERVER_PEER_LIMIT) {
        mustAdmit = 0;
    }
    pending.active = 1;
    pending.valid = ValidRequest(datagram) ? 1 : 0;
    pending.mustAdmit = mustAdmit;
    pending.answered = 0;
    pending.header = datagram->bytes[0];
    pending.poll = datagram->bytes[NTP_POLL_OFFSET];
    pending.port = datagram->fromPort;
    pending.client = static_cast<uint32_t>(c);
    pending.address = datagram->from;
    memcpy(pending.transmit, datagram->bytes + NTP_TRANSMIT_OFFSET, NTP_STAMP_SIZE);
    pending.wallSeconds = now;
    Journal(J_REQUEST_READ, c, mustAdmit);
}

uint64_t LoadStamp(const uint8_t* bytes) {
    uint64_t value = 0;
    for (int i = 0; i < 8; ++i) {
        value = (value << 8) | bytes[i];
    }
    return value;
}

void CheckServedStamp(const uint8_t* bytes, const char* which) {
    // GetSystemTime keeps whole milliseconds: the stamp may be up to 1 ms behind the clock, and
    // the conversion's double rounds either way by a fraction of a microsecond.
    const int64_t behind = static_cast<int64_t>(NtpStampOf(ReadClockModel(&systemClock, simNow)) - LoadStamp(bytes));
    const int64_t MICROSECOND = static_cast<int64_t>((1ULL << 32) / 1000000);
    const int64_t MILLISECOND = static_cast<int64_t>((1ULL << 32) / 1000);
    if (behind < -MICROSECOND || behind > MILLISECOND + MICROSECOND) {
        SimFail("the server's %s stamp is %" PRId64 " units of 2^-32 s off the machine's clock", which, behind);
    }
}

void ServerAnswer(const NetAddress* to, const uint8_t* data, int32_t length) {
    if (pending.active == 0 || pending.answered != 0) {
        SimFail("the server sent an answer that answers no request read (twice, or unasked)");
    }
    if (pending.valid == 0) {
        SimFail("the server answered an invalid request (first byte 0x%02X)", pending.header);
    }
    if (pending.mustAdmit == 0) {
        SimFail("the server answered client %u, which the peer limit refuses", pending.client);
    }
    pending.answered = 1;
    const uint8_t wantHeader = (pending.header & 0x07) == 3 ? 0x1C : 0x1A;
    if (length != static_cast<int32_t>(NTP_PACKET_SIZE) || to->address != pending.address ||
        HostPort(to->port) != pending.port) {
        SimFail("the server's answer went to the wrong place or has %d bytes", length);
    }
    if (data[0] != wantHeader || data[NTP_STRATUM_OFFSET] != 1 || data[NTP_POLL_OFFSET] != pending.poll ||
        data[NTP_PRECISION_OFFSET] != 0xFA || memcmp(data + NTP_REFERENCE_ID_OFFSET, "LOCL", 4) != 0) {
        SimFail("the server's answer header is wrong: %02X %02X %02X %02X", data[0], data[1], data[2], data[3]);
    }
    if (memcmp(data + NTP_ORIGINATE_OFFSET, pending.transmit, NTP_STAMP_SIZE) != 0) {
        SimFail("the server's answer does not echo the request's transmit stamp");
    }
    CheckServedStamp(data + NTP_RECEIVE_OFFSET, "receive");
    CheckServedStamp(data + NTP_TRANSMIT_OFFSET, "transmit");
    ++answers;
    Journal(J_ANSWER_SENT, pending.client, 0);
    RuleClear(SNTP_NO_RESPONSE);
}

// ---- Service runs, resources ----

struct Peaks {
    uint32_t fibers;
    uint32_t sockets;
    uint32_t libraryUsers;
    uint32_t peerSockets;
    uint64_t peers;
    uint32_t queued;
    int64_t allocations;
};

Peaks yearPeaks = {};
const uint32_t YEARS_MAX = 64;
Peaks peaksByYear[YEARS_MAX];
int32_t yearOf[YEARS_MAX];
uint32_t yearsSeen = 0;

int64_t allocationsAtStart = 0;
int64_t retainedAllocations = 0;
uint32_t lastStatus = HOST_STOPPED;
uint32_t lastTick = 0;
uint64_t tickWraps = 0;
uint64_t restartsByControl = 0;
uint64_t restartsByRecheck = 0;
SimTime lastRecheckRestart = 0;
const SimTime RECHECK_SPACING = 60 * NS_PER_SECOND;
uint64_t stopsSeen = 0;
uint64_t timeThreads[2] = {0, 0};  // client, server
uint64_t bindFailures = 0;
uint64_t threadStartFailures = 0;
uint64_t waitFailures = 0;
uint64_t minutes = 0;

template <typename T>
void Raise(T* peak, T value) {
    if (value > *peak) {
        *peak = value;
    }
}

void NotePeaks() {
    Raise(&yearPeaks.fibers, CountLiveFibers());
    Raise(&yearPeaks.sockets, CountOpenSockets());
    Raise(&yearPeaks.libraryUsers, NetLibraryUsers());
    Raise(&yearPeaks.peerSockets, static_cast<uint32_t>(CountPeerSockets()));
    Raise(&yearPeaks.peers, peakPeers);
    Raise(&yearPeaks.queued, expectedCount);
    Raise(&yearPeaks.allocations, peakAllocations);
}

int32_t ExpectServer(const char* value) {
    if (value[0] == '\0') {
        return 1;
    }
    const uint32_t address = inet_addr(value);
    if (address == INADDR_NONE) {
        return 0;  // a host name
    }
    return address == HOST_LOOPBACK || address == HOST_ADDRESS || address == 0 ? 1 : 0;
}

const char16_t* TroubleTextOf(uint32_t code) { return SntpTroubleTable[code].defaultText; }

// The code whose text the report carries (at most 81 units arrive), or -1.
int32_t CodeOfReport(const uint8_t* report) {
    for (uint32_t code = 1; code < CODES; ++code) {
        const char16_t* text = TroubleTextOf(code);
        bool same = true;
        uint32_t i = 0;
        for (; i < REPORT_TEXT_UNITS && text[i] != u'\0'; ++i) {
            const uint8_t* unit = report + WORKSTATION_REPORT_TEXT_OFFSET + 2 * i;
            if ((unit[0] | (unit[1] << 8)) != text[i]) {
                same = false;
                break;
            }
        }
        const uint8_t* end = report + WORKSTATION_REPORT_TEXT_OFFSET + 2 * i;
        if (same && (end[0] | end[1]) == 0) {
            return static_cast<int32_t>(code);
        }
    }
    return -1;
}

uint32_t ReadWord(const uint8_t* at) {
    return static_cast<uint32_t>(at[0]) | static_cast<uint32_t>(at[1]) << 8 | static_cast<uint32_t>(at[2]) << 16 |
           static_cast<uint32_t>(at[3]) << 24;
}
}  // namespace

// ---- Observers ----

void ObserveThreadStart(SimFiber* fiber) {
    Journal(J_THREAD_START, fiber->role, fiber->index);
    if (fiber->role != ROLE_CLIENT && fiber->role != ROLE_SERVER) {
        return;
    }
    ++timeThreads[fiber->role == ROLE_CLIENT ? 0 : 1];
    if (CountFibers(ROLE_CLIENT) + CountFibers(ROLE_SERVER) > TIME_THREADS_MAX) {
        SimFail("a second time thread was started while one runs");
    }
    const int32_t wantServer = ExpectServer(settingValue);
    if (wantServer != (fiber->role == ROLE_SERVER ? 1 : 0)) {
        SimFail("a %s thread was started while the setting \"%s\" asks for the %s role",
                fiber->role == ROLE_SERVER ? "server" : "client", settingValue, wantServer != 0 ? "server" : "client");
    }
    if (fiber->role == ROLE_CLIENT) {
        const bool sameRun = lastStartCause == 2 && lastEndedRole == ROLE_CLIENT && strcmp(clientText, settingValue) == 0;
        if (sameRun) {
            ++clientRecheckRestarts;
        } else {
            clientRunSince = simNow;
        }
        clientFiber = fiber;
        clientStartedAt = simNow;
        exchangesThisThread = 0;
        silences = 0;
        exchange.active = 0;
        snprintf(clientText, sizeof clientText, "%s", settingValue);
        clientUpstream = UpstreamOfText(clientText);
    }
    WorldThreadStarted();
}

void ObserveThreadStartFailed(uint8_t role) {
    // The controller says so with its role's "could not start" trouble.
    ++threadStartFailures;
    RuleSet(role == ROLE_SERVER ? SNTP_SERVER_NOT_STARTED : SNTP_CLIENT_NOT_STARTED);
}

void ObserveThreadEnd(SimFiber* fiber) {
    Journal(J_THREAD_END, fiber->role, fiber->index);
    if (fiber->role == ROLE_SERVER && serverNotStartedPending != 0) {
        serverNotStartedPending = 0;
        RuleSet(SNTP_SERVER_NOT_STARTED);
    }
    if (fiber->role == ROLE_CLIENT || fiber->role == ROLE_SERVER) {
        lastEndedRole = fiber->role;
    }
    if (fiber->role == ROLE_CLIENT) {
        if (exchange.active != 0) {
            SimFail("the client thread ended inside an exchange");
        }
        clientFiber = nullptr;
    }
}

void ObserveSleep(uint32_t milliseconds) {
    const uint8_t role = simCurrent->role;
    if ((role == ROLE_HOST || role == ROLE_DISPATCHER) && milliseconds == 1200) {
        // Every stop and restart of synchronisation clears all troubles, then grants the thread
        // its 1200 ms to end.
        RuleClearAll();
        WorldRestartBegun();
        lastStartCause = role == ROLE_DISPATCHER ? 1 : 2;
        if (role == ROLE_HOST && service.loopEnded == 0) {
            // The setting is re-read at most once a minute, and a restart follows a re-reading.
            // The host times the minute on the tick count, whose readings lag.
            if (lastRecheckRestart >= service.startedAt &&
                simNow - lastRecheckRestart < RECHECK_SPACING - TICK_COUNT_LAG_MAX) {
                SimFail("the re-check restarted synchronisation again after %.3f s",
                        static_cast<double>(simNow - lastRecheckRestart) / 1e9);
            }
            lastRecheckRestart = simNow;
        }
        if (service.loopEnded != 0) {
            ++stopsSeen;
        } else if (role == ROLE_DISPATCHER) {
            ++restartsByControl;
        } else {
            ++restartsByRecheck;
        }
        return;
    }
    if (role == ROLE_SERVER && serverNotStartedPending != 0) {
        serverNotStartedPending = 0;
        RuleSet(SNTP_SERVER_NOT_STARTED);
    }
}

void ObservePriority(int32_t priority) {
    if (simCurrent->role != ROLE_CLIENT) {
        return;
    }
    if (priority != 0) {
        BeginExchange();
    } else if (exchange.active != 0) {
        EndExchange();
    }
}

void ObserveClockWrite(int64_t fileTime) {
    if (simCurrent->role != ROLE_CLIENT || exchange.active == 0 || exchange.datagramRead == 0 ||
        exchange.firstCode != SNTP_OK || exchange.clockWrites != 0) {
        char set[40];
        FormatFileTime(fileTime, set, sizeof set);
        SimFail("the clock was set to %s without a good answer to set it from", set);
    }
    ++exchange.clockWrites;
    const Upstream& upstream = upstreams[exchange.upstream];
    const int64_t truth = ReadClockModel(&upstream.clock, simNow);
    const SimTime error = FileTimeToUnixNs(fileTime) - truth;
    // The half of the path's asymmetry that the round trip cannot show.
    const SimTime asymmetry = (exchange.requestDelay - exchange.answerDelay) / 2;
    const SimTime deviation = error - asymmetry;
    Journal(J_CLOCK_SET, error, asymmetry);
    if (deviation > CLOCK_TOLERANCE || deviation < -CLOCK_TOLERANCE) {
        char set[40];
        char want[40];
        FormatFileTime(fileTime, set, sizeof set);
        FormatFileTime(UnixNsToFileTime(truth), want, sizeof want);
        SimFail("the clock was set to %s, the upstream's time is %s: %.3f ms off (%.3f ms of path asymmetry allowed)",
                set, want, static_cast<double>(error) / 1e6, static_cast<double>(asymmetry) / 1e6);
    }
    ++clockSettings;
    Raise(&worstClockError, error < 0 ? -error : error);
    Raise(&worstClockDeviation, deviation < 0 ? -deviation : deviation);
    if (truth / NS_PER_SECOND >= ERA_WRAP_UNIX_SECONDS) {
        ++settingsAfterEra;
    }
    lastClockSetAt = simNow;
}

void ObserveSocketClose(SimSocket* socket) {
    if (socket->role == ROLE_SERVER && socket->serial == serverSocketSerial) {
        ResolvePending();
        serverSocketSerial = 0;
    }
}

void ObserveBind(SimSocket* socket, uint16_t port, int32_t failed) {
    Journal(J_BIND, port, failed);
    if (socket->role != ROLE_SERVER || port != NTP_PORT) {
        return;
    }
    if (failed != 0) {
        ++bindFailures;
        serverNotStartedPending = 1;
    } else {
        serverSocketSerial = socket->serial;
        ResetAdmission();
    }
}

void ObserveDatagramSent(SimSocket* socket, const NetAddress* to, const uint8_t* data, int32_t length) {
    if (socket->role == ROLE_SERVER && socket->serial == serverSocketSerial) {
        ServerAnswer(to, data, length);
    } else if (socket->role == ROLE_CLIENT) {
        const uint32_t wanted = clientUpstream >= 0 ? upstreams[clientUpstream].address : 0;
        if (exchange.active == 0 || exchange.requestSent != 0 || to->address != wanted ||
            HostPort(to->port) != SNTP_PORT || length != static_cast<int32_t>(NTP_PACKET_SIZE) ||
            data[0] != SNTP_CLIENT_REQUEST) {
            SimFail("the client sent something other than one version-3 request to the server \"%s\"", clientText);
        }
        exchange.requestSent = 1;
        exchange.sentAt = simNow;
        exchange.server = to->address;
        memcpy(exchange.stamp, data + NTP_TRANSMIT_OFFSET, NTP_STAMP_SIZE);
    } else {
        SimFail("the %s thread sent a datagram", RoleName(socket->role));
    }
    if (length < 0 || length > static_cast<int32_t>(DATAGRAM_BYTES)) {
        return;
    }
    Datagram* datagram = NewDatagram();
    datagram->from = HOST_ADDRESS;
    datagram->fromPort = socket->port;
    datagram->to = to->address;
    datagram->toPort = HostPort(to->port);
    datagram->length = static_cast<uint16_t>(length);
    memcpy(datagram->bytes, data, static_cast<size_t>(length));
    CarryFromMachine(datagram);
}

void ObserveDatagramRead(SimSocket* socket, const Datagram* datagram) {
    if (socket->role == ROLE_SERVER) {
        ServerRead(datagram);
        return;
    }
    if (socket->role == ROLE_CLIENT && exchange.active != 0 && exchange.datagramRead == 0) {
        exchange.datagramRead = 1;
        exchange.firstCode = ClassifyAnswer(datagram);
        exchange.upstream = UpstreamOfText(clientText);
        exchange.requestDelay = datagram->requestDelay;
        exchange.answerDelay = datagram->pathDelay;
    }
}

void ObserveWaitStart(SimSocket* socket) {
    if (socket->role == ROLE_SERVER) {
        ResolvePending();
    }
}

void ObserveWaitTimedOut(SimSocket* socket) {
    // The exchange looks at the stop flag when a wait ends empty, and only then.
    if (socket->role == ROLE_CLIENT && exchange.active != 0 && stopRequested.load() != 0) {
        exchange.stopSeen = 1;
    }
}

void ObserveWaitFailed(SimSocket* socket) {
    ++waitFailures;
    if (socket->role == ROLE_SERVER) {
        RuleSet(SNTP_SOCKET_ERROR);
    } else if (socket->role == ROLE_CLIENT) {
        exchange.waitFailed = 1;
    }
}

void ObserveReport(const uint8_t* report, uint32_t size) {
    if (size != WORKSTATION_REPORT_SIZE) {
        SimFail("a report of %u bytes", size);
    }
    if (service.loopEnded != 0) {
        SimFail("a report reached the workstation after the stop: troubles cleared at stop are never delivered");
    }
    const int32_t code = CodeOfReport(report);
    const uint32_t state = ReadWord(report + WORKSTATION_REPORT_STATE_OFFSET);
    static const uint8_t SOURCE[] = {'S', 0, 'N', 0, 'T', 0, 'P', 0, 0, 0};
    if (code < 0 || ReadWord(report) != 16 || ReadWord(report + 4) != 3 ||
        memcmp(report + WORKSTATION_REPORT_SOURCE_OFFSET, SOURCE, sizeof SOURCE) != 0 ||
        ReadWord(report + WORKSTATION_REPORT_KIND_OFFSET) != REPORT_KIND_TROUBLE ||
        ReadWord(report + WORKSTATION_REPORT_CODE_OFFSET) != 7 || (state != TROUBLE_SET && state != TROUBLE_CLEARED)) {
        SimFail("a report that is no SNTP trouble report (text code %d, state %u)", code, state);
    }
    if (expectedCount == 0) {
        SimFail("the workstation got %s of trouble %d, which the rules do not give here",
                state == TROUBLE_SET ? "a set" : "a clear", code);
    }
    const ExpectedReport& want = expected[expectedHead];
    if (want.code != code || want.state != state) {
        SimFail("the workstation got %s of trouble %d where the oracle expects %s of trouble %u",
                state == TROUBLE_SET ? "a set" : "a clear", code, want.state == TROUBLE_SET ? "a set" : "a clear",
                want.code);
    }
    expectedHead = (expectedHead + 1) % EXPECTED_CAPACITY;
    --expectedCount;
    if (state == TROUBLE_SET) {
        ++setsWritten[code];
    } else {
        ++clearsWritten[code];
    }
    if (workstationListening == 0) {
        ++reportsLost;
        Journal(J_REPORT_LOST, code, state);
        return;
    }
    Journal(J_REPORT, code, state);
    const uint8_t held = state == TROUBLE_SET ? 1 : 0;
    heldByWorkstation[code] = held;
    heldByRules[want.code] = want.state == TROUBLE_SET ? 1 : 0;
}

// The supervision loop waits again: everything queued before its last wake has been drained.
void OracleLoopPulse(SimTime lastWake, uint32_t timeoutMs) {
    if (timeoutMs > SUPERVISION_STEP_MS_MAX) {
        SimFail("the supervision loop waits %u ms between deliveries of troubles", timeoutMs);
    }
    if (expectedCount != 0 && expected[expectedHead].at < lastWake && sinkInstalled != 0) {
        SimFail("a trouble report of code %u queued %.1f ms ago was not delivered by the drain since",
                expected[expectedHead].code, static_cast<double>(simNow - expected[expectedHead].at) / 1e6);
    }
}

void OracleLookup(int32_t result) {
    if (simCurrent->role == ROLE_CLIENT && exchange.active != 0) {
        ++exchange.lookups;
        exchange.lookupResult = result;
    }
}

void OracleWorkstation(int32_t listening) {
    if (listening != 0) {
        // The workstation application starts afresh: it holds nothing.
        memset(heldByWorkstation, 0, sizeof heldByWorkstation);
        memset(heldByRules, 0, sizeof heldByRules);
    }
}

void OracleSinkInstalled() { sinkInstalled = 1; }

void OracleServiceStarted() {
    allocationsAtStart = liveAllocations;
    lastStartCause = 0;
    lastEndedRole = 0;
    modelMask = 0;  // a new process
    sinkInstalled = 0;
    lastStatus = HOST_STOPPED;
    silences = 0;
    exchange.active = 0;
    serverNotStartedPending = 0;
}

void OracleServiceEnded() {
    // A stop ends every thread of the service and gives back every socket.
    if (CountFibers(ROLE_CLIENT) + CountFibers(ROLE_SERVER) + CountFibers(ROLE_AGEING) != 0) {
        SimFail("the service stopped with %u time thread(s) and %u ageing thread(s) still running",
                CountFibers(ROLE_CLIENT) + CountFibers(ROLE_SERVER), CountFibers(ROLE_AGEING));
    }
    if (CountOpenSockets() != 0 || NetLibraryUsers() != 0 || CountPeerSockets() != 0) {
        SimFail("the service stopped with %u socket(s) open, %u library user(s), %zu registered socket(s)",
                CountOpenSockets(), NetLibraryUsers(), CountPeerSockets());
    }
    retainedAllocations += liveAllocations - allocationsAtStart;
    if (retainedAllocations > RETAINED_MAX) {
        SimFail("%" PRId64 " allocations kept from one run of the service to the next", retainedAllocations);
    }
    expectedHead = 0;
    expectedCount = 0;  // lost with the process
    sinkInstalled = 0;
    if (lastStatus != HOST_STOPPED) {
        SimFail("the service ended without reporting stopped (last state %u)", lastStatus);
    }
}

void OracleStatus(uint32_t state, uint32_t accepted) {
    const uint32_t from = lastStatus;
    const bool allowed = state == from || (from == HOST_STOPPED && state == HOST_START_PENDING) ||
                         (from == HOST_START_PENDING && state == HOST_RUNNING) ||
                         (from == HOST_RUNNING && state == HOST_STOP_PENDING) ||
                         (from == HOST_STOP_PENDING && state == HOST_STOPPED);
    if (!allowed) {
        SimFail("the service reported state %u after %u", state, from);
    }
    const uint32_t wantAccepted = state == HOST_RUNNING || state == HOST_STOP_PENDING ? 5u : 0u;
    if (accepted != wantAccepted && !(state == HOST_STOP_PENDING && accepted == 5)) {
        SimFail("the service accepts controls %u in state %u", accepted, state);
    }
    lastStatus = state;
}

void OracleMinute() {
    ++minutes;
    const uint32_t tick = MachineTickCount();
    if (tick < lastTick) {
        ++tickWraps;
    }
    lastTick = tick;
    NotePeaks();
    ResetAllocationPeak();

    // Bounded resources.
    if (CountFibers(ROLE_CLIENT) + CountFibers(ROLE_SERVER) > TIME_THREADS_MAX || CountFibers(ROLE_AGEING) > 1) {
        SimFail("%u time threads and %u ageing threads run at once", CountFibers(ROLE_CLIENT) + CountFibers(ROLE_SERVER),
                CountFibers(ROLE_AGEING));
    }
    if (CountOpenSockets() > SOCKETS_MAX || NetLibraryUsers() > SOCKETS_MAX || CountPeerSockets() > SOCKETS_MAX ||
        CountBlockedPeers() != 0) {
        SimFail("sockets pile up: %u open, %u library users, %zu registered, %zu blocked", CountOpenSockets(),
                NetLibraryUsers(), CountPeerSockets(), CountBlockedPeers());
    }
    if (liveAllocations > ALLOCATIONS_MAX) {
        SimFail("%" PRId64 " live allocations", liveAllocations);
    }
    if (service.running == 0) {
        return;
    }

    // A deadlock: a cycle of untimed waits, each for a lock another holds or a thread another is.
    for (uint32_t i = 1; i < SIM_MAX_FIBERS; ++i) {
        const SimFiber* fiber = &simFibers[i];
        for (uint32_t step = 0; step < SIM_MAX_FIBERS && fiber != nullptr && fiber->state == FIBER_LIVE &&
                                fiber->wakeAt == SIM_NEVER && fiber->waitingOn != nullptr;
             ++step) {
            fiber = fiber->waitKind == WAIT_LOCK   ? SimLockOwner(fiber->waitingOn)
                    : fiber->waitKind == WAIT_JOIN ? static_cast<const SimFiber*>(fiber->waitingOn)
                                                   : nullptr;
            if (fiber == &simFibers[i]) {
                SimFail("deadlock: the %s thread waits, through a cycle of locks and joins, for itself",
                        RoleName(fiber->role));
            }
        }
    }

    // Liveness: also while the service stops, whose stop must end every thread.
    if (service.loopEnded == 0 && simNow - service.lastPulse > STALL_LIMIT) {
        SimFail("the supervision loop has not run for %.1f s", static_cast<double>(simNow - service.lastPulse) / 1e9);
    }
    for (uint32_t i = 1; i < SIM_MAX_FIBERS; ++i) {
        const SimFiber& fiber = simFibers[i];
        const bool joining = fiber.waitingOn >= static_cast<const void*>(&simFibers[0]) &&
                             fiber.waitingOn < static_cast<const void*>(&simFibers[SIM_MAX_FIBERS]);
        if (fiber.state == FIBER_LIVE && joining && simNow - fiber.waitingSince > STALL_LIMIT) {
            const SimFiber* awaited = static_cast<const SimFiber*>(fiber.waitingOn);
            SimFail("the %s thread has waited %.1f s for the %s thread to end: its stop was lost", RoleName(fiber.role),
                    static_cast<double>(simNow - fiber.waitingSince) / 1e9, RoleName(awaited->role));
        }
    }
    if (service.controlSince != SIM_NEVER && simNow - service.controlSince > STALL_LIMIT) {
        SimFail("the control handler has been busy for %.1f s", static_cast<double>(simNow - service.controlSince) / 1e9);
    }
    if (service.loopEnded != 0) {
        return;
    }

    // The held troubles.
    if (memcmp(heldByRules, heldByWorkstation, sizeof heldByRules) != 0) {
        SimFail("the workstation holds troubles other than the oracle expects");
    }

    // The role follows a setting that names an address, once it has been seen.
    if (simNow - settingSince > SETTLED_AFTER && simNow - service.startedAt > SETTLED_AFTER) {
        const uint32_t address = inet_addr(settingValue);
        const uint32_t clients = CountFibers(ROLE_CLIENT);
        const uint32_t servers = CountFibers(ROLE_SERVER);
        if (address != INADDR_NONE && address != 0 && clients + servers == 1) {
            const bool wantServer = address == HOST_LOOPBACK || address == HOST_ADDRESS;
            if (wantServer != (servers == 1)) {
                SimFail("the setting \"%s\" has named %s for %.0f s and the service is still the %s", settingValue,
                        wantServer ? "this machine" : "a server elsewhere",
                        static_cast<double>(simNow - settingSince) / 1e9, servers == 1 ? "server" : "client");
            }
        }
    }

    // With the upstream healthy, the clock is set every day.
    if (clientFiber != nullptr) {
        if (clientUpstream < 0 || upstreams[clientUpstream].mode != UP_GOOD) {
            lastUnhealthyAt = simNow;
        }
        SimTime since = lastClockSetAt;
        Raise(&since, clientRunSince);
        Raise(&since, lastUnhealthyAt);
        if (simNow - since > DAILY_DEADLINE) {
            SimFail("the clock has not been set for %.0f s with its upstream healthy",
                    static_cast<double>(simNow - since) / 1e9);
        }
    }
}

void OracleYear(int32_t year) {
    NotePeaks();
    if (yearsSeen < YEARS_MAX) {
        peaksByYear[yearsSeen] = yearPeaks;
        yearOf[yearsSeen] = year;
        ++yearsSeen;
    }
    yearPeaks = Peaks{};
    peakPeers = 0;
}

void OracleFinal() { OracleYear(-1); }

void PrintOracleSummary() {
    printf("clock settings         %" PRIu64 " (after the NTP era's wrap on 2036-02-07: %" PRIu64 ")\n", clockSettings,
           settingsAfterEra);
    printf("  worst error          %.3f ms against the upstream (%.3f ms beyond the path's asymmetry)\n",
           static_cast<double>(worstClockError) / 1e6, static_cast<double>(worstClockDeviation) / 1e6);
    printf("exchanges by result   ");
    for (uint32_t code = 0; code < CODES; ++code) {
        printf(" %u:%" PRIu64, code, exchangeResults[code]);
    }
    printf("\ntroubles raised        ");
    uint64_t sets = 0;
    uint64_t clears = 0;
    for (uint32_t code = 1; code < CODES; ++code) {
        sets += setsWritten[code];
        clears += clearsWritten[code];
        printf(" %u:%" PRIu64, code, setsWritten[code]);
    }
    printf("  (%" PRIu64 ")\ntroubles cleared       ", sets);
    for (uint32_t code = 1; code < CODES; ++code) {
        printf(" %u:%" PRIu64, code, clearsWritten[code]);
    }
    printf("  (%" PRIu64 ")\n", clears);
    printf("  lost (no workstation) %" PRIu64 ", queued at a stop (never delivered) %" PRIu64
           ", suppressed during a stop %" PRIu64 "\n",
           reportsLost, undeliveredAtStop, suppressedByStop);
    printf("restarts               %" PRIu64 " by control 128, %" PRIu64 " by the minute's re-check; %" PRIu64
           " stops; time threads: %" PRIu64 " client, %" PRIu64 " server\n",
           restartsByControl, restartsByRecheck, stopsSeen, timeThreads[0], timeThreads[1]);
    printf("  clients restarted by the re-check as the same client: %" PRIu64 "\n", clientRecheckRestarts);
    printf("server                 %" PRIu64 " answers, %" PRIu64 " refused at the peer limit, %" PRIu64
           " invalid requests ignored; %" PRIu64 " failed binds, %" PRIu64 " failed waits\n",
           answers, refused, ignoredInvalid, bindFailures, waitFailures);
    printf("tick count wraps       %" PRIu64 "; minute checks %" PRIu64 "; time threads refused by the machine %" PRIu64
           "\n",
           tickWraps, minutes, threadStartFailures);
    printf("peaks by year          fibers sockets library-users registered-sockets peers(at most) queued-reports allocations\n");
    for (uint32_t y = 0; y < yearsSeen; ++y) {
        const Peaks& p = peaksByYear[y];
        char label[16];
        if (yearOf[y] < 0) {
            snprintf(label, sizeof label, "to the end");
        } else {
            snprintf(label, sizeof label, "%d", yearOf[y]);
        }
        printf("  %-20s %6u %7u %13u %18u %13" PRIu64 " %14u %11" PRId64 "\n", label, p.fibers, p.sockets,
               p.libraryUsers, p.peerSockets, p.peers, p.queued, p.allocations);
    }
    printf("allocations kept across service runs: %" PRId64 " (first-use tables)\n", retainedAllocations);
}
