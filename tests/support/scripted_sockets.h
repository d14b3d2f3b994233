// Socket calls played by the test, for the life of the object: a wait is readable while datagrams
// are queued; each send is recorded and handed to the test's answerer. One at a time.
#pragma once

#include <cstdint>
#include <functional>
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
    void OnSend(std::function<void(const ScriptedDatagram& sent)> onSend);
    void OnClose(std::function<void(uint64_t handle)> onClose);
    // 0: opens succeed; otherwise each open fails with this platform error.
    void FailOpens(int32_t error);
    void FailWaits(bool fail);
    bool Drained() const;
    std::vector<ScriptedDatagram> Sent() const;
    std::vector<uint32_t> WaitsMs() const;

private:
    const SocketPlatform* previous_;
};
