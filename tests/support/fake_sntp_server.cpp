// The scripted SNTP server of the tests.
#include "tests/support/fake_sntp_server.h"

#include <chrono>
#include <cstring>

#include "sntp/ntp_time.h"
#include "tests/support/virtual_time.h"

namespace {
const uint32_t RECEIVE_STEP_MS = 50;        // how soon Stop is noticed
const uint32_t BIND_RETRY_MS = 100;
const uint32_t BIND_PATIENCE_MS = 5000;     // another test's peer may hold the address briefly
const int32_t REQUEST_CAPACITY = 512;
const uint8_t GOOD_HEADER = 0x1C;           // leap 0, version 3, mode 4
const uint8_t VERSION_4_HEADER = 0x24;      // leap 0, version 4, mode 4
const char REFERENCE_ID[4] = {'F', 'A', 'K', 'E'};

// The fake's GOOD answer to request: originate echoed, stratum 2, the fixed server time.
std::vector<uint8_t> MakeGoodSntpAnswer(const uint8_t* request) {
    std::vector<uint8_t> answer(NTP_PACKET_SIZE, 0);
    answer[0] = GOOD_HEADER;
    answer[1] = FAKE_SERVER_STRATUM;
    answer[2] = request[2];
    answer[3] = 0xEC;  // precision 2^-20 s
    std::memcpy(&answer[12], REFERENCE_ID, sizeof REFERENCE_ID);
    StoreBigEndian64(&answer[16], FAKE_SERVER_TIME - (64ULL << 32));
    std::memcpy(&answer[NTP_ORIGINATE_OFFSET], request + NTP_TRANSMIT_OFFSET, 8);
    StoreBigEndian64(&answer[NTP_RECEIVE_OFFSET], FAKE_SERVER_TIME);
    StoreBigEndian64(&answer[NTP_TRANSMIT_OFFSET], FAKE_SERVER_TIME);
    return answer;
}
}  // namespace

uint64_t HostClockNtp() {
    const int64_t micros = std::chrono::duration_cast<std::chrono::microseconds>(
                               std::chrono::system_clock::now().time_since_epoch())
                               .count();
    const uint64_t seconds = static_cast<uint64_t>(micros / 1000000) + 2208988800ULL;
    const uint64_t fraction = (static_cast<uint64_t>(micros % 1000000) << 32) / 1000000u;
    return (seconds << 32) | fraction;
}

int32_t FakeSntpServer::Start(const char* address, FakeAnswer answer, uint16_t port) {
    Stop();
    answer_ = answer;
    requests_ = 0;
    address_ = address;
    int32_t error = 0;
    for (uint32_t waited = 0;; waited += BIND_RETRY_MS) {
        error = OpenLoopbackUdp(&endpoint_, address, port);
        if (error == 0 || waited >= BIND_PATIENCE_MS) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(BIND_RETRY_MS));
    }
    if (error != 0) return error;
    stop_ = false;
    thread_ = std::thread(&FakeSntpServer::Serve, this);
    return 0;
}

void FakeSntpServer::Stop() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    CloseLoopbackUdp(&endpoint_);
}

std::vector<uint8_t> FakeSntpServer::LastRequest() const {
    std::lock_guard<std::mutex> hold(lastMutex_);
    return last_;
}

bool FakeSntpServer::WaitForRequests(uint32_t count, uint32_t timeoutMs) const {
    for (uint32_t waited = 0; waited < timeoutMs; waited += 10) {
        if (requests_.load() >= count) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return requests_.load() >= count;
}

void FakeSntpServer::Serve() {
    uint8_t request[REQUEST_CAPACITY];
    while (!stop_.load()) {
        uint32_t client = 0;
        uint16_t clientPort = 0;
        const int32_t length =
            ReceiveLoopbackUdp(&endpoint_, request, REQUEST_CAPACITY, RECEIVE_STEP_MS, &client, &clientPort);
        if (length <= 0) continue;
        const uint64_t receivedAt = HostClockNtp();  // T2, before anything else
        {
            std::lock_guard<std::mutex> hold(lastMutex_);
            last_.assign(request, request + (length < REQUEST_CAPACITY ? length : REQUEST_CAPACITY));
        }
        requests_.fetch_add(1);
        if (length >= static_cast<int32_t>(NTP_PACKET_SIZE)) Answer(request, client, clientPort, receivedAt);
    }
}

void FakeSntpServer::Answer(const uint8_t* request, uint32_t client, uint16_t clientPort, uint64_t receivedAt) {
    std::vector<uint8_t> answer = MakeGoodSntpAnswer(request);
    if (hostClock_.load()) {
        const int64_t ahead = aheadMs_.load();
        const uint64_t offset = (static_cast<uint64_t>(ahead < 0 ? -ahead : ahead) << 32) / 1000u;
        const uint64_t sentAt = HostClockNtp();
        StoreBigEndian64(&answer[NTP_RECEIVE_OFFSET], ahead < 0 ? receivedAt - offset : receivedAt + offset);
        StoreBigEndian64(&answer[NTP_TRANSMIT_OFFSET], ahead < 0 ? sentAt - offset : sentAt + offset);
    }
    if (virtualClock_.load()) {
        const uint64_t elapsedMs = VirtualElapsedMs();
        const uint64_t since = ((elapsedMs / 1000) << 32) + ((elapsedMs % 1000) << 32) / 1000;
        StoreBigEndian64(&answer[NTP_RECEIVE_OFFSET], virtualStart_.load() + since);
        StoreBigEndian64(&answer[NTP_TRANSMIT_OFFSET], virtualStart_.load() + since);
    }
    switch (answer_.load()) {
        case FakeAnswer::SILENT: return;
        case FakeAnswer::VERSION_4: answer[0] = VERSION_4_HEADER; break;
        case FakeAnswer::WRONG_ORIGINATE: answer[NTP_ORIGINATE_OFFSET + 7] ^= 0x01; break;
        case FakeAnswer::SHORT_47: answer.pop_back(); break;
        case FakeAnswer::LONG_49: answer.push_back(0); break;
        default: break;  // GOOD, OTHER_PORT
    }
    const int32_t length = static_cast<int32_t>(answer.size());
    if (answer_.load() == FakeAnswer::OTHER_PORT) {
        LoopbackUdp other{~0ULL};
        if (OpenLoopbackUdp(&other, address_.c_str(), 0) == 0) {
            SendLoopbackUdp(&other, answer.data(), length, client, clientPort);
            CloseLoopbackUdp(&other);
        }
        return;
    }
    SendLoopbackUdp(&endpoint_, answer.data(), length, client, clientPort);
}
