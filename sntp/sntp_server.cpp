// The SNTP server thread: answers version-3 client and symmetric-active requests on UDP port
// 123 from the local clock. After each wait it answers every datagram already queued (up to a
// batch), one at a time, each with its own receive and transmit stamps, with the thread's
// priority raised once around the batch.
#include "sntp/sntp_server.h"

#include "sntp/sntp_test_seams.h"

#include <cstring>

#include "net/net_socket.h"
#include "runtime/runtime.h"
#include "sntp/ntp_time.h"
#include "sntp/sntp_client.h"
#include "sntp/sntp_troubles.h"

std::atomic<int32_t> serverMode{SERVER_MODE_LOCAL_CLOCK};
std::atomic<uint32_t> upstreamAddress{0};
std::atomic<uint16_t> sntpServerPort{SNTP_PORT};

namespace {
const uint32_t SELECT_STEP_MS = 1000;     // also how soon a stop request is seen
const uint32_t IDLE_STEP_MS = 1000;
const int32_t REQUEST_CAPACITY = 512;     // bytes; anything but 48 is dropped anyway
// Datagrams answered per wait at most, so that a flood still lets the stop flag be seen within
// milliseconds: the receive queue asked for below holds thousands of requests, and draining it
// whole before looking at the flag again could take a while.
const int32_t BATCH_LIMIT = 64;
const int32_t RECEIVE_QUEUE_BYTES = 1 << 20;  // 1 MiB: some milliseconds of requests at full load
const uint8_t PRECISION = 0xFA;  // -6: 2^-6 s, about the 15.6 ms tick of the clock we serve

const char REFERENCE_LOCAL[4] = {'L', 'O', 'C', 'L'};
const char REFERENCE_INIT[4] = {'I', 'N', 'I', 'T'};
const char REFERENCE_TOP[4] = {'T', 'O', 'P', ' '};

// Written in memory order, not network order, on purpose: answers in these modes stay byte for
// byte those that the installation's other nodes already receive, and no client of this system
// reads the field.
void PutHostOrderStamp(uint8_t* answer, uint64_t value) {
    std::memcpy(answer + NTP_REFERENCE_STAMP_OFFSET, &value, NTP_STAMP_SIZE);
}
std::atomic<SntpServerClock> serverClock{nullptr};

void ReadServerClock(uint8_t* out) {
    const SntpServerClock clock = serverClock.load();
    if (clock != nullptr) {
        clock(out);
    } else {
        NtpNow(out);
    }
}
}  // namespace

void SetSntpServerClock(SntpServerClock clock) { serverClock = clock; }

int32_t BuildSntpAnswer(const uint8_t* request, int32_t length, const uint8_t* receiveStamp, uint8_t* answer) {
    std::memset(answer, 0, NTP_PACKET_SIZE);
    std::memcpy(answer + NTP_RECEIVE_OFFSET, receiveStamp, NTP_STAMP_SIZE);
    if (length != static_cast<int32_t>(NTP_PACKET_SIZE)) {
        return 0;
    }
    const uint8_t header = request[0];
    uint8_t answerHeader;
    switch (header & NTP_MODE_MASK) {
        case NTP_MODE_CLIENT:
            answerHeader = SNTP_ANSWER_TO_CLIENT;
            break;
        case NTP_MODE_SYMMETRIC_ACTIVE:
            answerHeader = SNTP_ANSWER_TO_SYMMETRIC;
            break;
        default:
            return 0;
    }
    // Version-4 clients get no answer, as the client side speaks version 3 only; nor does a
    // request that claims an unsynchronised clock.
    if ((header & NTP_VERSION_MASK) != NTP_VERSION_3 || (header & NTP_LEAP_MASK) != 0) {
        return 0;
    }
    std::memcpy(answer + NTP_ORIGINATE_OFFSET, request + NTP_TRANSMIT_OFFSET, NTP_STAMP_SIZE);

    const int32_t mode = serverMode.load();
    if (mode == SERVER_MODE_LOCAL_CLOCK) {
        std::memcpy(answer + NTP_REFERENCE_ID_OFFSET, REFERENCE_LOCAL, sizeof REFERENCE_LOCAL);
        answer[NTP_STRATUM_OFFSET] = NTP_STRATUM_PRIMARY;
    } else if (synchronised.load() == 0) {
        // Relaying an upstream that has not been reached yet: say so with the alarm.
        std::memcpy(answer + NTP_REFERENCE_ID_OFFSET, REFERENCE_INIT, sizeof REFERENCE_INIT);
        answer[NTP_STRATUM_OFFSET] = NTP_STRATUM_UNSPECIFIED;
        answerHeader |= NTP_LEAP_ALARM;
    } else if (mode == SERVER_MODE_UPSTREAM) {
        const uint32_t upstream = upstreamAddress.load();  // already in network order
        std::memcpy(answer + NTP_REFERENCE_ID_OFFSET, &upstream, sizeof upstream);
        PutHostOrderStamp(answer, lastSyncTime.load());
        answer[NTP_STRATUM_OFFSET] = static_cast<uint8_t>(static_cast<uint8_t>(upstreamStratum.load()) + 1);
    } else {
        // Any other mode: the top of a hierarchy of its own, a primary source again.
        std::memcpy(answer + NTP_REFERENCE_ID_OFFSET, REFERENCE_TOP, sizeof REFERENCE_TOP);
        PutHostOrderStamp(answer, lastSyncTime.load());
        answer[NTP_STRATUM_OFFSET] = NTP_STRATUM_PRIMARY;
    }
    answer[0] = answerHeader;
    answer[NTP_POLL_OFFSET] = request[NTP_POLL_OFFSET];
    answer[NTP_PRECISION_OFFSET] = PRECISION;
    return 1;
}

uint32_t SntpServerThread(uint64_t upstream) {
    // The stop flag was cleared by whoever started this thread, never here: see the client.
    NetSocket socket;
    const bool created = CreateNetSocket(&socket, NET_SOCKET_DATAGRAM) == 0;
    NetSocketHold hold(created ? &socket : nullptr);
    if (!created || OpenNetSocket(&socket, sntpServerPort.load(), SNTP_SERVER_PEER_LIMIT) != 0) {
        // Usually the Windows Time service still holds the port. In the default installation the
        // server is restarted every minute, so what was opened is given back at once: a socket
        // and a library reference left behind here would pile up by 1440 a day.
        hold.Discard();
        SetSntpTrouble(SNTP_SERVER_NOT_STARTED);
        while (stopRequested.load() == 0) {
            SleepFor(IDLE_STEP_MS);
        }
        return 0;
    }
    // Room for the requests of a few milliseconds at full load, while another thread holds the
    // processor; the default queue (some hundred datagrams) overflows then. Best effort.
    SetNetSocketReceiveBuffer(&socket, RECEIVE_QUEUE_BYTES);
    if (upstream != 0) {
        upstreamAddress = static_cast<uint32_t>(upstream);
        serverMode = SERVER_MODE_UPSTREAM;
    } else {
        serverMode = SERVER_MODE_LOCAL_CLOCK;
    }
    synchronised = 0;

    while (stopRequested.load() == 0) {
        const int32_t ready = WaitNetSocketReadable(&socket, SELECT_STEP_MS);
        if (ready == -1) {
            // Reported on every failing pass; the pause keeps a failure that persists from
            // flooding the workstation and spinning the processor.
            SetSntpTrouble(SNTP_SOCKET_ERROR);
            SleepFor(IDLE_STEP_MS);
            continue;
        }
        if (ready != 1) {
            continue;
        }
        // Raised once for the batch: between each datagram's read and its answer's send the
        // thread must not lose the processor, and raising it per datagram cost two system calls.
        SetCurrentThreadPriority(PRIORITY_HIGHEST);
        for (int32_t answered = 0; answered < BATCH_LIMIT; ++answered) {
            uint8_t request[REQUEST_CAPACITY];
            uint32_t source = 0;
            uint16_t sourcePort = 0;
            // Every datagram goes through the peer admission on its own read.
            const int32_t count = ReceiveQueuedNetSocket(&socket, request, REQUEST_CAPACITY, &source, &sourcePort,
                                                         SNTP_SERVER_PEER_LIMIT);
            if (count == NET_NOTHING_QUEUED || count == -1) {
                break;
            }
            // T2 of this datagram, right after its own read and before any check.
            uint8_t receiveStamp[NTP_STAMP_SIZE];
            ReadServerClock(receiveStamp);
            uint8_t answer[NTP_PACKET_SIZE];
            if (BuildSntpAnswer(request, count, receiveStamp, answer) != 0) {
                // T3 as late as possible, right before this answer's own send.
                ReadServerClock(answer + NTP_TRANSMIT_OFFSET);
                // Not checked: a client that misses its answer asks again.
                SendNetSocket(&socket, answer, static_cast<int32_t>(NTP_PACKET_SIZE), &source, sourcePort,
                              SNTP_SERVER_PEER_LIMIT);
                ClearSntpTrouble(SNTP_NO_RESPONSE);
            }
        }
        SetCurrentThreadPriority(PRIORITY_NORMAL);
    }
    return 0;
}
