// A good version-3 answer to a scripted request: receive = transmit = serverTime.
#pragma once

#include <cstring>

#include "sntp/ntp_time.h"
#include "tests/support/scripted_sockets.h"

const uint8_t GOOD_ANSWER_STRATUM = 2;

inline ScriptedDatagram GoodAnswerTo(const ScriptedDatagram& request, NtpTimestamp serverTime) {
    ScriptedDatagram answer{request.address, request.port, std::vector<uint8_t>(NTP_PACKET_SIZE, 0)};
    answer.bytes[0] = 0x1C;  // leap 0, version 3, server mode
    answer.bytes[NTP_STRATUM_OFFSET] = GOOD_ANSWER_STRATUM;
    std::memcpy(&answer.bytes[NTP_ORIGINATE_OFFSET], &request.bytes[NTP_TRANSMIT_OFFSET], NTP_STAMP_SIZE);
    StoreBigEndian64(&answer.bytes[NTP_RECEIVE_OFFSET], serverTime);
    StoreBigEndian64(&answer.bytes[NTP_TRANSMIT_OFFSET], serverTime);
    return answer;
}
