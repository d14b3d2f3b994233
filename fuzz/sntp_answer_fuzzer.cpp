// Fuzzes the client's check of an answer (48 bytes, then optionally the source port's 2): any input gives
// one of the exchange's result codes, and an accepted answer never a negative round trip.
#include <cstring>

#include "sntp/ntp_time.h"
#include "sntp/sntp_exchange.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < NTP_PACKET_SIZE) return 0;
    const uint16_t port = size >= NTP_PACKET_SIZE + 2 ? static_cast<uint16_t>(data[48] << 8 | data[49]) : 123;
    uint8_t request[NTP_PACKET_SIZE] = {SNTP_CLIENT_REQUEST}, answer[NTP_PACKET_SIZE], destination[8];
    std::memcpy(answer, data, NTP_PACKET_SIZE);
    std::memcpy(request + NTP_TRANSMIT_OFFSET, data + NTP_ORIGINATE_OFFSET, 8);  // echoed: later checks reached
    const SntpResult result = CheckSntpAnswer(request, answer, 0x0200007F, 0x0200007F, port);
    if (result < 0 || result > 10) __builtin_trap();
    NtpTimestamp time = 0, delay = 0;
    StoreBigEndian64(destination, LoadBigEndian64(request + NTP_TRANSMIT_OFFSET) + 1);  // T4 just after T1
    if (result == 0) NtpComputeTime(&time, destination, answer, &delay);
    if (static_cast<int64_t>(delay) < 0) __builtin_trap();
    return 0;
}
