// Fuzzes the server's handling of one received datagram: whatever arrives (any length up to the
// 512-byte receive buffer, any first byte), it is either dropped or answered with 48 well-formed
// bytes that echo the request's transmit stamp and never carry version 4 or an alarm.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sntp/ntp_time.h"
#include "sntp/sntp_server.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t request[512] = {}, answer[NTP_PACKET_SIZE];
    const size_t length = size < sizeof request ? size : sizeof request;
    std::memcpy(request, data, length);
    std::memset(answer, 0xA5, sizeof answer);
    const uint8_t receiveStamp[8] = {0xEC, 0x5A, 0x11, 0x22, 0x33, 0x44, 0x55, 0x64};
    if (BuildSntpAnswer(request, static_cast<int32_t>(length), receiveStamp, answer) == 0) {
        return 0;
    }
    // Only well-formed version-3 requests are answered, in mode 4 or 2, with the stamps in place.
    const uint8_t header = request[0];
    if (length != NTP_PACKET_SIZE || (header & NTP_VERSION_MASK) != NTP_VERSION_3 || (header & NTP_LEAP_MASK) != 0 ||
        (answer[0] != SNTP_ANSWER_TO_CLIENT && answer[0] != SNTP_ANSWER_TO_SYMMETRIC) || answer[2] != request[2] ||
        answer[3] != 0xFA || std::memcmp(answer + NTP_ORIGINATE_OFFSET, request + NTP_TRANSMIT_OFFSET, 8) != 0 ||
        std::memcmp(answer + NTP_RECEIVE_OFFSET, receiveStamp, 8) != 0) {
        __builtin_trap();
    }
    return 0;
}
