// One owning wrapper per Win32 handle kind, so that no early return can leak a handle: service
// manager handles, registry keys, kernel handles (events, mutexes, files, mailslots, threads,
// tokens) and sockets. Each closes its handle when it goes out of scope; Reset closes early, in
// the order the caller chooses; Release hands the handle over without closing it. Included only
// by *_win32.cpp files.
#pragma once

#include <winsock2.h>
#include <windows.h>

template <typename Handle, typename Closer, Closer close>
class UniqueHandle {
public:
    UniqueHandle() = default;
    explicit UniqueHandle(Handle handle) : handle_(handle) {}
    UniqueHandle(const UniqueHandle&) = delete;
    UniqueHandle& operator=(const UniqueHandle&) = delete;
    ~UniqueHandle() { Reset(); }

    Handle Get() const { return handle_; }
    bool Valid() const { return handle_ != nullptr && handle_ != INVALID_HANDLE_VALUE; }
    void Reset(Handle handle = nullptr) {
        if (Valid()) {
            close(handle_);
        }
        handle_ = handle;
    }
    Handle Release() {
        const Handle handle = handle_;
        handle_ = nullptr;
        return handle;
    }

private:
    Handle handle_ = nullptr;
};

using UniqueServiceHandle = UniqueHandle<SC_HANDLE, BOOL(WINAPI*)(SC_HANDLE), CloseServiceHandle>;
using UniqueKey = UniqueHandle<HKEY, LONG(WINAPI*)(HKEY), RegCloseKey>;
using UniqueKernelHandle = UniqueHandle<HANDLE, BOOL(WINAPI*)(HANDLE), CloseHandle>;
using UniqueTokenHandle = UniqueKernelHandle;
