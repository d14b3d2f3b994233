// One owning wrapper per Win32 handle kind, so that early returns cannot leak a handle.
// Each closes its handle when it goes out of scope; Reset closes early, in the order the caller
// chooses.
#pragma once

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
    void Reset() {
        if (Valid()) {
            close(handle_);
        }
        handle_ = nullptr;
    }

private:
    Handle handle_ = nullptr;
};

using UniqueServiceHandle = UniqueHandle<SC_HANDLE, BOOL(WINAPI*)(SC_HANDLE), CloseServiceHandle>;
using UniqueKey = UniqueHandle<HKEY, LONG(WINAPI*)(HKEY), RegCloseKey>;
using UniqueKernelHandle = UniqueHandle<HANDLE, BOOL(WINAPI*)(HANDLE), CloseHandle>;
using UniqueTokenHandle = UniqueKernelHandle;
