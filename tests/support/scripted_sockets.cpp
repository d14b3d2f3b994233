// The scripted socket calls of the tests.
#include "tests/support/scripted_sockets.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <mutex>
#include <thread>
#include <utility>

#include "net/net_test_seams.h"

namespace {
std::mutex scriptMutex;
std::deque<ScriptedDatagram> queued;
std::vector<ScriptedDatagram> sent;
std::vector<uint32_t> waits;
std::function<void(const ScriptedDatagram&)> sendHook;
std::function<void(uint64_t)> closeHook;
std::atomic<int32_t> openError{0};
std::atomic<bool> waitsFail{false};
std::atomic<uint16_t> nextPort{40000};  // each open is bound to a port of its own

int32_t NextDatagram(void* buffer, int32_t capacity, NetAddress* from, int32_t nothing) {
    std::lock_guard<std::mutex> hold(scriptMutex);
    if (queued.empty()) return nothing;
    const ScriptedDatagram datagram = queued.front();
    queued.pop_front();
    const int32_t length = std::min(capacity, static_cast<int32_t>(datagram.bytes.size()));
    std::memcpy(buffer, datagram.bytes.data(), static_cast<size_t>(length));
    from->family = NET_FAMILY_INET;
    from->address = datagram.address;
    from->port = NetworkPort(datagram.port);
    return length;
}

const SocketPlatform scriptedPlatform = {
    [] { return 0; },
    [] {},
    [](int32_t* error) {
        *error = openError.load();
        return *error == 0 ? SCRIPTED_HANDLE : NET_INVALID_HANDLE;
    },
    [](uint64_t handle) {
        if (closeHook) closeHook(handle);
    },
    [](uint64_t, int32_t, int32_t) { return 0; },
    [](uint64_t, const NetAddress*, int32_t*) { return 0; },
    [](uint64_t, NetAddress* address) {
        address->port = NetworkPort(nextPort.fetch_add(1));
        return 0;
    },
    [](uint64_t, const void* data, int32_t length, const NetAddress* to, int32_t*) {
        const uint8_t* bytes = static_cast<const uint8_t*>(data);
        const ScriptedDatagram datagram{to->address, HostPort(to->port), std::vector<uint8_t>(bytes, bytes + length)};
        {
            std::lock_guard<std::mutex> hold(scriptMutex);
            sent.push_back(datagram);
        }
        if (sendHook) sendHook(datagram);
        return length;
    },
    [](uint64_t, void* buffer, int32_t capacity, NetAddress* from, int32_t*) {
        return NextDatagram(buffer, capacity, from, -1);
    },
    [](uint64_t, void* buffer, int32_t capacity, NetAddress* from, int32_t*) {
        return NextDatagram(buffer, capacity, from, NET_NOTHING_QUEUED);
    },
    [](uint64_t, uint32_t timeoutMs) {
        if (waitsFail.load()) return -1;
        {
            std::lock_guard<std::mutex> hold(scriptMutex);
            waits.push_back(timeoutMs);
            if (!queued.empty()) return 1;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a wait with nothing to read, in short
        return 0;
    },
};
}  // namespace

ScriptedSockets::ScriptedSockets() {
    {
        std::lock_guard<std::mutex> hold(scriptMutex);
        queued.clear();
        sent.clear();
        waits.clear();
    }
    sendHook = nullptr;
    closeHook = nullptr;
    openError = 0;
    waitsFail = false;
    previous_ = InstallSocketPlatform(&scriptedPlatform);
}

ScriptedSockets::~ScriptedSockets() {
    InstallSocketPlatform(previous_);
    sendHook = nullptr;
    closeHook = nullptr;
}

void ScriptedSockets::Queue(const ScriptedDatagram& datagram) {
    std::lock_guard<std::mutex> hold(scriptMutex);
    queued.push_back(datagram);
}

void ScriptedSockets::OnSend(std::function<void(const ScriptedDatagram&)> onSend) { sendHook = std::move(onSend); }

void ScriptedSockets::OnClose(std::function<void(uint64_t)> onClose) { closeHook = std::move(onClose); }

void ScriptedSockets::FailOpens(int32_t error) { openError = error; }

void ScriptedSockets::FailWaits(bool fail) { waitsFail = fail; }

bool ScriptedSockets::Drained() const {
    std::lock_guard<std::mutex> hold(scriptMutex);
    return queued.empty();
}

std::vector<ScriptedDatagram> ScriptedSockets::Sent() const {
    std::lock_guard<std::mutex> hold(scriptMutex);
    return sent;
}

std::vector<uint32_t> ScriptedSockets::WaitsMs() const {
    std::lock_guard<std::mutex> hold(scriptMutex);
    return waits;
}
