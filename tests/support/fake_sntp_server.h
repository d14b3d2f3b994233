// A scripted SNTP server for tests: bound to one loopback address on UDP port 123 (where the
// client sends), it records every request and answers each with a well-formed version-3 answer
// from a fixed server time, or with one chosen fault. Its thread stops with the object.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tools/loopback_udp.h"

enum class FakeAnswer {
    GOOD,             // 0x1C, stratum 2, originate echoed, receive = transmit = serverTime
    SILENT,           // records the request, answers nothing
    VERSION_4,        // 0x24: everything else valid
    WRONG_ORIGINATE,  // one bit of the echoed stamp flipped
    OTHER_PORT,       // the good answer, sent from another port of the same address
    SHORT_47,         // the good answer's first 47 bytes
    LONG_49,          // the good answer and one byte more
};

const uint16_t FAKE_SNTP_PORT = 123;
// 2026-01-01 00:00:00 UTC in NTP seconds: where a good answer puts the server's clock.
const uint64_t FAKE_SERVER_TIME = 3976214400ULL << 32;
const uint32_t FAKE_SERVER_STRATUM = 2;

class FakeSntpServer {
public:
    FakeSntpServer() = default;
    FakeSntpServer(const FakeSntpServer&) = delete;
    FakeSntpServer& operator=(const FakeSntpServer&) = delete;
    ~FakeSntpServer() { Stop(); }

    // Binds address:port (retrying for a few seconds while another test holds it) and starts
    // answering. 0, or the platform error of the last bind.
    int32_t Start(const char* address, FakeAnswer answer, uint16_t port = FAKE_SNTP_PORT);
    void Stop();
    void SetAnswer(FakeAnswer answer) { answer_ = answer; }
    // From now on good answers carry this host's clock plus aheadMs (read to the microsecond when
    // the request was read, and again just before the answer is sent) instead of FAKE_SERVER_TIME.
    void AnswerFromHostClock(int64_t aheadMs) {
        aheadMs_ = aheadMs;
        hostClock_ = true;
    }
    // From now on good answers carry a clock that reads startStamp when the virtual time (of
    // tests/support/virtual_time.h) starts and moves with it; it wraps as NTP stamps do.
    void AnswerFromVirtualClock(uint64_t startStamp) {
        virtualStart_ = startStamp;
        virtualClock_ = true;
    }

    uint32_t Requests() const { return requests_.load(); }
    // The last request as received (its full length).
    std::vector<uint8_t> LastRequest() const;
    // Waits up to timeoutMs of real time for at least count requests.
    bool WaitForRequests(uint32_t count, uint32_t timeoutMs) const;

private:
    void Serve();
    void Answer(const uint8_t* request, uint32_t client, uint16_t clientPort, uint64_t receivedAt);

    LoopbackUdp endpoint_{~0ULL};
    std::string address_;
    std::atomic<FakeAnswer> answer_{FakeAnswer::GOOD};
    std::atomic<bool> stop_{false};
    std::atomic<uint32_t> requests_{0};
    std::atomic<bool> hostClock_{false};
    std::atomic<int64_t> aheadMs_{0};
    std::atomic<bool> virtualClock_{false};
    std::atomic<uint64_t> virtualStart_{0};
    mutable std::mutex lastMutex_;
    std::vector<uint8_t> last_;
    std::thread thread_;
};

// This host's clock as an NTP stamp, to the microsecond (not through the platform driver).
uint64_t HostClockNtp();
