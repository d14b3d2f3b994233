// Socket calls played by the test instead of the platform's, installed for the life of the object:
// no platform socket is touched, so a batch of datagrams from hundreds of senders runs the same on
// every build. Opens give a made-up handle (or fail while told to), a wait is readable while
// datagrams are queued (or fails while told to), each receive takes the next queued datagram, and
// every send is recorded. One at a time.
#pragma once

#include <cstdint>
#include <vector>

#include "net/socket_platform.h"

struct ScriptedDatagram {
    uint32_t address;  // network order
    uint16_t port;     // host order
    std::vector<uint8_t> bytes;
};

const uint64_t SCRIPTED_HANDLE = 0x5C0C;

class ScriptedSockets {
public:
    ScriptedSockets();
    ~ScriptedSockets();
    ScriptedSockets(const ScriptedSockets&) = delete;
    ScriptedSockets& operator=(const ScriptedSockets&) = delete;

    void Queue(const ScriptedDatagram& datagram);
    // 0: opens succeed; otherwise each open fails with this platform error.
    void FailOpens(int32_t error);
    void FailWaits(bool fail);
    bool Drained() const;  // every queued datagram was received
    std::vector<ScriptedDatagram> Sent() const;

private:
    const SocketPlatform* previous_;
};
