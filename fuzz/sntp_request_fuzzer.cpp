// Fuzzes the server's answer to any datagram up to the 512-byte receive buffer: dropped, or answered
// when 48 bytes long, never past the answer's 48 bytes, and always echoing the request's transmit stamp.
#include <cstring>

#include "sntp/ntp_time.h"
#include "sntp/sntp_server.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    uint8_t request[512] = {}, answer[NTP_PACKET_SIZE];  // exactly 48: the sanitizer sees any overrun
    const size_t length = size < sizeof request ? size : sizeof request;
    std::memcpy(request, data, length);
    const uint8_t receiveStamp[8] = {0xEC, 0x5A, 0x11, 0x22, 0x33, 0x44, 0x55, 0x64};
    const int32_t answered = BuildSntpAnswer(request, static_cast<int32_t>(length), receiveStamp, answer);
    const bool echoed = std::memcmp(answer + NTP_ORIGINATE_OFFSET, request + NTP_TRANSMIT_OFFSET, 8) == 0;
    if (answered != 0 && (answered != 1 || length != NTP_PACKET_SIZE || !echoed)) __builtin_trap();
    return 0;
}
