// Fuzzes the client's checks of one answer and the time computed from an accepted one: any 48
// bytes from any source must give one defined result, and only an accepted answer's stamps are
// ever used. The input is: 48 bytes of answer, then optionally the source port's 2 bytes and a
// flag byte (bit 0: the echo differs from the request, bit 1: another source address).
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "sntp/ntp_time.h"
#include "sntp/sntp_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < NTP_PACKET_SIZE) {
        return 0;
    }
    const uint8_t flags = size > NTP_PACKET_SIZE + 2 ? data[NTP_PACKET_SIZE + 2] : 0;
    const uint16_t port = size >= NTP_PACKET_SIZE + 2 ? static_cast<uint16_t>(data[48] << 8 | data[49]) : 123;
    uint8_t request[NTP_PACKET_SIZE] = {SNTP_CLIENT_REQUEST}, answer[NTP_PACKET_SIZE];
    std::memcpy(answer, data, NTP_PACKET_SIZE);
    // Usually echo the request's transmit stamp, so the later checks are reached too.
    std::memcpy(request + NTP_TRANSMIT_OFFSET, answer + NTP_ORIGINATE_OFFSET, 8);
    request[NTP_TRANSMIT_OFFSET] ^= (flags & 1) != 0 ? 0x80 : 0;
    const uint32_t server = 0x0200007F, source = (flags & 2) != 0 ? 0x0300007F : server;  // 127.0.0.2 and .3
    const SntpResult result = CheckSntpAnswer(request, answer, server, source, port);
    if (result < 0 || result > 10) {
        __builtin_trap();  // every answer gets one of the exchange's result codes
    }
    if (result == 0) {
        uint8_t destination[8];
        StoreBigEndian64(destination, LoadBigEndian64(request + NTP_TRANSMIT_OFFSET) + 1);
        NtpTimestamp time = 0, delay = 0;
        NtpComputeTime(&time, destination, answer, &delay);
        if (static_cast<int64_t>(delay) < 0) {
            __builtin_trap();  // a negative round trip is never passed on
        }
    }
    return 0;
}
