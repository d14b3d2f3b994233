// One SNTP version-3 exchange with a time server: resolve it, send a 48-byte client request
// whose transmit field is a tick stamp, wait for the first answer in half-second steps, check
// it, and estimate the true time from its stamps. Nothing survives between two exchanges.
#include <cstring>

#include "net/ipv4.h"
#include "net/net_socket.h"
#include "runtime/platform.h"
#include "sntp/sntp_exchange.h"
#include "sntp/sntp_troubles.h"

namespace {
const uint32_t POLL_INTERVAL_MS = 500;   // one select step; also the latency of a stop request
const uint16_t ANY_LOCAL_PORT = 0;

// One byte more than a packet: POSIX recvfrom truncates an over-long datagram to the buffer
// without saying so (Windows fails it), so only a larger buffer shows a 49-byte answer as one.
const int32_t ANSWER_CAPACITY = static_cast<int32_t>(NTP_PACKET_SIZE) + 1;

bool IsZero(const uint8_t* bytes, uint32_t size) {
    for (uint32_t i = 0; i < size; ++i) {
        if (bytes[i] != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace

SntpResult CheckSntpAnswer(const uint8_t* request, const uint8_t* answer, uint32_t server, uint32_t source,
                           uint16_t sourcePort) {
    const uint8_t header = answer[0];
    // Only the server we asked, from the NTP port, may answer.
    if (source != server || sourcePort != SNTP_PORT) {
        return SNTP_INCONSISTENT_ADDRESS;
    }
    // The answer must echo our request's transmit stamp: anything else answers someone else.
    if (std::memcmp(answer + NTP_ORIGINATE_OFFSET, request + NTP_TRANSMIT_OFFSET, NTP_STAMP_SIZE) != 0) {
        return SNTP_INCONSISTENT_ADDRESS;
    }
    // A server answers in mode 4.
    if ((header & NTP_MODE_MASK) != NTP_MODE_SERVER) {
        return SNTP_INVALID_RESPONSE;
    }
    // Version 3 only, also from servers that speak 4: that is the one dialect this system keeps.
    if ((header & NTP_VERSION_MASK) != NTP_VERSION_3) {
        return SNTP_INCOMPATIBLE_VERSION;
    }
    // Leap indicator 3 is the server's own alarm: its clock is not synchronised.
    if ((header & NTP_LEAP_MASK) == NTP_LEAP_ALARM) {
        return SNTP_NOT_SYNCHRONISED;
    }
    // Stratum 0 is unspecified or a kiss-o'-death: nothing to set the clock from.
    if (answer[NTP_STRATUM_OFFSET] == NTP_STRATUM_UNSPECIFIED) {
        return SNTP_UNKNOWN_ERROR;
    }
    // A zero transmit stamp means the server has no time to give.
    if (IsZero(answer + NTP_TRANSMIT_OFFSET, NTP_STAMP_SIZE)) {
        return SNTP_NOT_SYNCHRONISED;
    }
    return SNTP_OK;
}

SntpResult SntpExchange(const char* server, int32_t timeoutMs, NtpTimestamp* time, NtpTimestamp* delay,
                        uint32_t* stratum) {
    // Truncating division: 5000 ms gives 10 polls, i.e. up to 11 waits of 500 ms, and a time-out
    // below 500 ms still waits once.
    const int32_t polls = timeoutMs / static_cast<int32_t>(POLL_INTERVAL_MS);

    uint32_t serverAddress = 0;
    if (ParseIPv4(server, &serverAddress) != 0 && ResolveHost(server, &serverAddress) != 0) {
        return SNTP_CANNOT_RESOLVE;  // before any socket exists
    }

    uint8_t request[NTP_PACKET_SIZE] = {};
    uint8_t answer[ANSWER_CAPACITY] = {};
    NetSocket socket;
    if (CreateNetSocket(&socket, NET_SOCKET_DATAGRAM) != 0) {
        // The object is untouched when the socket library cannot start: nothing to destroy.
        return SNTP_SOCKET_ERROR;
    }
    NetSocketHold hold(&socket);  // nothing survives between two exchanges, whatever ends this one
    if (OpenNetSocket(&socket, ANY_LOCAL_PORT, SNTP_CLIENT_PEER_LIMIT) != 0) {
        return SNTP_SOCKET_ERROR;
    }

    // T1: our tick stamp in the transmit field. A server copies it into the originate field
    // unchanged, which is all the exchange relies on; the wall clock plays no part.
    request[0] = SNTP_CLIENT_REQUEST;
    NtpTickStamp(request + NTP_TRANSMIT_OFFSET);
    // Not checked: a lost or refused send shows up as silence.
    SendNetSocket(&socket, request, static_cast<int32_t>(NTP_PACKET_SIZE), &serverAddress, SNTP_PORT,
                  SNTP_CLIENT_PEER_LIMIT);

    // Zero when no answer was read (only a negative time-out skips the wait): the address
    // check below then refuses it.
    uint32_t source = 0;
    uint16_t sourcePort = 0;
    for (int32_t n = polls; n >= 0; --n) {
        const int32_t ready = WaitNetSocketReadable(&socket, POLL_INTERVAL_MS);
        if (ready == 1) {
            // Only the first datagram counts: a wrong one ends the exchange.
            const int32_t count = ReceiveNetSocket(&socket, answer, ANSWER_CAPACITY, &source, &sourcePort,
                                                   SNTP_CLIENT_PEER_LIMIT);
            if (count != static_cast<int32_t>(NTP_PACKET_SIZE)) {
                return SNTP_INVALID_RESPONSE;
            }
            break;
        }
        if (ready == 0) {
            if (stopRequested.load() != 0) {
                return SNTP_SOCKET_ERROR;
            }
            if (n == 0) {
                return SNTP_NO_RESPONSE;
            }
            continue;
        }
        return SNTP_SOCKET_ERROR;
    }
    // T4: taken at once, before anything else can stretch the measured round trip.
    const uint64_t arrivalTick = ReadStampTick();
    uint8_t destination[NTP_STAMP_SIZE];
    StoreBigEndian64(destination, MicrosToNtp(arrivalTick));
    hold.Discard();

    const SntpResult verdict = CheckSntpAnswer(request, answer, serverAddress, source, sourcePort);
    if (verdict != SNTP_OK) {
        return verdict;
    }
    const uint8_t answerStratum = answer[NTP_STRATUM_OFFSET];
    // T1 originate (our tick stamp, echoed)   T2 receive (server clock)
    // T3 transmit (server clock)              T4 destination (our tick stamp)
    // time = T3 + ((T4 - T1) - (T3 - T2)) / 2
    NtpTimestamp estimate = 0;
    NtpTimestamp roundTrip = 0;
    NtpComputeTime(&estimate, destination, answer, &roundTrip);
    // The estimate is the server's time at T4; the caller sets the clock at once, but closing the
    // socket (which joins the socket library's thread when it is the last) may have taken a
    // while on a busy host. Carried forward by the ticks since T4, it is the server's time now.
    estimate += MicrosToNtp(StampTicksSince(arrivalTick));
    if (time != nullptr) {
        *time = estimate;
    }
    if (delay != nullptr) {
        *delay = roundTrip;
    }
    if (stratum != nullptr) {
        *stratum = answerStratum;
    }
    return SNTP_OK;
}
