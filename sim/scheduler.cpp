// The scheduler: fibers on fcontext, the earliest-wake choice over a small array, the world's
// event heap, the random generator and the digest. Nothing here allocates after the first use
// of a fiber slot: stacks are mapped once per slot and reused.
#include "sim/scheduler.h"

#include <sys/mman.h>
#include <unistd.h>

#include <boost/context/detail/fcontext.hpp>
#include <cstdio>
#include <cstdlib>

#include "sim/journal.h"

using boost::context::detail::fcontext_t;
using boost::context::detail::jump_fcontext;
using boost::context::detail::make_fcontext;
using boost::context::detail::transfer_t;

SimTime simNow = 0;
SimFiber* simCurrent = nullptr;
SimFiber simFibers[SIM_MAX_FIBERS];
uint64_t simSteps = 0;
uint64_t simSwitches = 0;
uint64_t simEventsRun = 0;
uint64_t simDigest = 0x6a09e667f3bcc908ULL;

namespace {
uint32_t fiberHigh = 1;  // slots below this may be in use; slot 0 is the main fiber
SimEvent heap[SIM_MAX_EVENTS];
uint32_t heapSize = 0;
uint64_t eventOrder = 0;
void (*eventHandler)(const SimEvent& event) = nullptr;
uint64_t randomState[4];

uint64_t SplitMix(uint64_t* state) {
    uint64_t z = (*state += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
}

uint64_t Rotate(uint64_t value, int bits) { return (value << bits) | (value >> (64 - bits)); }

bool Earlier(const SimEvent& a, const SimEvent& b) {
    return a.at < b.at || (a.at == b.at && a.order < b.order);
}

SimEvent PopEvent() {
    const SimEvent top = heap[0];
    const SimEvent last = heap[--heapSize];
    uint32_t at = 0;
    for (;;) {
        uint32_t child = 2 * at + 1;
        if (child >= heapSize) {
            break;
        }
        if (child + 1 < heapSize && Earlier(heap[child + 1], heap[child])) {
            ++child;
        }
        if (!Earlier(heap[child], last)) {
            break;
        }
        heap[at] = heap[child];
        at = child;
    }
    heap[at] = last;
    return top;
}

// The fiber that jumped here is suspended: keep its context.
void KeepSuspended(transfer_t from) { static_cast<SimFiber*>(from.data)->context = from.fctx; }

void SwitchTo(SimFiber* next) {
    SimFiber* self = simCurrent;
    simCurrent = next;
    ++simSwitches;
    KeepSuspended(jump_fcontext(next->context, self));
}

void FiberEntry(transfer_t from) {
    KeepSuspended(from);
    SimFiber* self = simCurrent;
    self->function(self->argument);
    if (self->locksHeld != 0) {
        SimFail("the %s thread ended holding %u lock(s): whoever waits for them waits for ever", RoleName(self->role),
                self->locksHeld);
    }
    self->state = FIBER_ENDED;
    self->wakeAt = SIM_NEVER;
    WakeFibersOn(self);
    if (self->joinable == 0) {
        ReleaseFiber(self);  // its slot is not reused while this stack is still the current one
    }
    WaitFiber();
    SimFail("an ended fiber was resumed");
}

char* MapStack() {
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    void* mapped = mmap(nullptr, SIM_FIBER_STACK_BYTES + page, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapped == MAP_FAILED) {
        SimFail("cannot map a fiber stack");
    }
    mprotect(mapped, page, PROT_NONE);  // an overflow faults instead of corrupting a neighbour
    return static_cast<char*>(mapped) + page;
}
}  // namespace

void DigestValue(uint64_t value) {
    simDigest = Rotate((simDigest ^ value) * 0x9E3779B97F4A7C15ULL, 29);
}

uint64_t NextSimRandom() {
    const uint64_t result = Rotate(randomState[1] * 5, 7) * 9;
    const uint64_t t = randomState[1] << 17;
    randomState[2] ^= randomState[0];
    randomState[3] ^= randomState[1];
    randomState[1] ^= randomState[2];
    randomState[0] ^= randomState[3];
    randomState[2] ^= t;
    randomState[3] = Rotate(randomState[3], 45);
    return result;
}

uint64_t SimRandomBelow(uint64_t bound) {
    return static_cast<uint64_t>((static_cast<unsigned __int128>(NextSimRandom()) * bound) >> 64);
}

SimTime SimRandomTime(SimTime low, SimTime high) {
    return low + static_cast<SimTime>(SimRandomBelow(static_cast<uint64_t>(high - low) + 1));
}

int32_t SimChance(uint64_t numerator, uint64_t denominator) {
    return SimRandomBelow(denominator) < numerator ? 1 : 0;
}

void InitScheduler(uint64_t seed) {
    simNow = 0;
    heapSize = 0;
    eventOrder = 0;
    fiberHigh = 1;
    uint64_t state = seed;
    for (uint64_t& word : randomState) {
        word = SplitMix(&state);
    }
    simFibers[0].state = FIBER_LIVE;
    simFibers[0].role = ROLE_MAIN;
    simFibers[0].wakeAt = SIM_NEVER;
    for (uint32_t i = 1; i < SIM_MAX_FIBERS; ++i) {
        simFibers[i].index = static_cast<uint8_t>(i);
        ReleaseFiber(&simFibers[i]);  // the stack stays mapped for the next use
    }
    simCurrent = &simFibers[0];
}

void SetEventHandler(void (*handler)(const SimEvent& event)) { eventHandler = handler; }

void RunScheduler() {
    simFibers[0].wakeAt = SIM_NEVER;
    WaitFiber();
}

void EndRun() {
    simFibers[0].wakeAt = simNow;
    simFibers[0].waitingOn = nullptr;
}

SimFiber* StartFiber(ThreadFunction function, uint64_t argument, uint8_t role, uint8_t joinable) {
    for (uint32_t i = 1; i < SIM_MAX_FIBERS; ++i) {
        SimFiber* fiber = &simFibers[i];
        if (fiber->state != FIBER_UNUSED || fiber == simCurrent) {
            continue;
        }
        if (fiber->stack == nullptr) {
            fiber->stack = MapStack();
        }
        fiber->context = make_fcontext(fiber->stack + SIM_FIBER_STACK_BYTES, SIM_FIBER_STACK_BYTES, FiberEntry);
        fiber->function = function;
        fiber->argument = argument;
        fiber->state = FIBER_LIVE;
        fiber->role = role;
        fiber->joinable = joinable;
        fiber->waitingOn = nullptr;
        fiber->woken = 0;
        fiber->locksHeld = 0;
        fiber->randomState = 1;  // the C runtime's state of a new thread
        fiber->wakeAt = simNow;
        if (i + 1 > fiberHigh) {
            fiberHigh = i + 1;
        }
        return fiber;
    }
    return nullptr;
}

void ReleaseFiber(SimFiber* fiber) {
    fiber->state = FIBER_UNUSED;
    fiber->wakeAt = SIM_NEVER;
    fiber->waitingOn = nullptr;
}

void WaitFiber() {
    for (;;) {
        SimFiber* next = nullptr;
        SimTime at = SIM_NEVER;
        uint32_t ties = 0;
        for (uint32_t i = 0; i < fiberHigh; ++i) {
            SimFiber* fiber = &simFibers[i];
            if (fiber->wakeAt < at) {
                at = fiber->wakeAt;
                next = fiber;
                ties = 1;
            } else if (fiber->wakeAt == at && at != SIM_NEVER) {
                // Reservoir choice: each of the tied fibers is equally likely to go first.
                ++ties;
                if (SimRandomBelow(ties) == 0) {
                    next = fiber;
                }
            }
        }
        if (heapSize > 0 && heap[0].at <= at) {
            const SimEvent event = PopEvent();
            if (event.at > simNow) {
                simNow = event.at;
            }
            ++simEventsRun;
            ++simSteps;
            DigestValue(static_cast<uint64_t>(simNow) ^ (static_cast<uint64_t>(event.kind) << 56));
            eventHandler(event);
            continue;
        }
        if (next == nullptr) {
            SimFail("deadlock: every fiber waits without a time-out and no event is due");
        }
        if (at > simNow) {
            simNow = at;
        }
        ++simSteps;
        DigestValue(static_cast<uint64_t>(simNow) * 17 + next->index);
        if (next != simCurrent) {
            SwitchTo(next);
        }
        return;
    }
}

void SleepFiber(SimTime duration) {
    simCurrent->wakeAt = simNow + duration;
    simCurrent->waitingOn = nullptr;
    WaitFiber();
}

void WaitFiberOn(const void* object, uint8_t kind) {
    simCurrent->wakeAt = SIM_NEVER;
    simCurrent->waitingOn = object;
    simCurrent->waitKind = kind;
    simCurrent->waitingSince = simNow;
    simCurrent->woken = 0;
    WaitFiber();
}

int32_t WaitFiberOnFor(const void* object, SimTime duration) {
    simCurrent->wakeAt = simNow + duration;
    simCurrent->waitingOn = object;
    simCurrent->waitingSince = simNow;
    simCurrent->waitKind = WAIT_OTHER;
    simCurrent->woken = 0;
    WaitFiber();
    simCurrent->waitingOn = nullptr;
    return simCurrent->woken;
}

void WakeFibersOn(const void* object) {
    for (uint32_t i = 0; i < fiberHigh; ++i) {
        SimFiber* fiber = &simFibers[i];
        if (fiber->waitingOn == object && fiber->state == FIBER_LIVE) {
            fiber->waitingOn = nullptr;
            fiber->woken = 1;
            fiber->wakeAt = simNow;
        }
    }
}

void YieldFiber() {
    simCurrent->wakeAt = simNow;
    simCurrent->waitingOn = nullptr;
    WaitFiber();
}

uint32_t CountFibers(uint8_t role) {
    uint32_t count = 0;
    for (uint32_t i = 1; i < fiberHigh; ++i) {
        if (simFibers[i].state == FIBER_LIVE && simFibers[i].role == role) {
            ++count;
        }
    }
    return count;
}

uint32_t CountLiveFibers() {
    uint32_t count = 0;
    for (uint32_t i = 1; i < fiberHigh; ++i) {
        if (simFibers[i].state != FIBER_UNUSED) {
            ++count;
        }
    }
    return count;
}

void ScheduleEvent(SimTime at, uint32_t kind, uint32_t a, uint64_t b) {
    if (heapSize == SIM_MAX_EVENTS) {
        SimFail("the event heap is full");
    }
    SimEvent event;
    event.at = at < simNow ? simNow : at;
    event.order = eventOrder++;
    event.kind = kind;
    event.a = a;
    event.b = b;
    uint32_t position = heapSize++;
    while (position > 0) {
        const uint32_t parent = (position - 1) / 2;
        if (!Earlier(event, heap[parent])) {
            break;
        }
        heap[position] = heap[parent];
        position = parent;
    }
    heap[position] = event;
}

uint32_t PendingEvents() { return heapSize; }
