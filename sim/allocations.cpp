// The counting allocator: glibc lets a program replace malloc and its family, and its own calls
// (strdup, fopen, the C++ runtime's operator new) then come here too.
#include "sim/allocations.h"

#include <cerrno>
#include <cstddef>

extern "C" {
void* __libc_malloc(size_t size);
void __libc_free(void* pointer);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
}

int64_t liveAllocations = 0;
int64_t peakAllocations = 0;

void ResetAllocationPeak() { peakAllocations = liveAllocations; }

namespace {
void* Counted(void* pointer) {
    if (pointer != nullptr && ++liveAllocations > peakAllocations) {
        peakAllocations = liveAllocations;
    }
    return pointer;
}
}  // namespace

extern "C" {
void* malloc(size_t size) { return Counted(__libc_malloc(size)); }

void free(void* pointer) {
    if (pointer != nullptr) {
        --liveAllocations;
        __libc_free(pointer);
    }
}

void* calloc(size_t count, size_t size) { return Counted(__libc_calloc(count, size)); }

void* realloc(void* pointer, size_t size) {
    if (pointer == nullptr) {
        return Counted(__libc_realloc(nullptr, size));
    }
    if (size == 0) {
        free(pointer);
        return nullptr;
    }
    return __libc_realloc(pointer, size);
}

void* memalign(size_t alignment, size_t size) { return Counted(__libc_memalign(alignment, size)); }

void* aligned_alloc(size_t alignment, size_t size) { return Counted(__libc_memalign(alignment, size)); }

int posix_memalign(void** result, size_t alignment, size_t size) {
    void* pointer = Counted(__libc_memalign(alignment, size));
    if (pointer == nullptr) {
        return ENOMEM;
    }
    *result = pointer;
    return 0;
}
}
