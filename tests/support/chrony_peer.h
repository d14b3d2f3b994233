// chrony as the real NTP implementation beside the tests, never touching the clock: a server
// (`chronyd -x`) bound to one loopback address on port 123, and a one-shot query (`chronyd -Q`)
// that measures another server without setting anything. Works natively and under Wine.
#pragma once

#include <cstdint>
#include <string>

// Where the tests find chronyd: unpacked beside the build by scripts/setup.sh, never installed.
const char* ChronydPath();
bool ChronyInstalled();

class ChronyServer {
public:
    ChronyServer() = default;
    ChronyServer(const ChronyServer&) = delete;
    ChronyServer& operator=(const ChronyServer&) = delete;
    ~ChronyServer() { Stop(); }

    // Starts chronyd serving its own clock as stratum 1 on bindAddress:123 and waits until its
    // process is up. False (with the reason in Log()) when it cannot start.
    bool Start(const char* bindAddress);
    void Stop();
    std::string Log() const;

private:
    std::string scratch_;
};

// Asks server (a chrony "server" line, e.g. "127.0.0.1 port 12323 iburst version 3") once with
// `chronyd -Q`: true and chrony's measured offset of the local clock from the server (seconds)
// when chrony accepted an answer. Its whole output into output.
bool QueryWithChrony(const std::string& serverLine, double* offsetSeconds, std::string* output);
