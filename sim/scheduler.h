// The simulator's scheduler: one operating-system thread, every thread of the service a fiber
// (Boost.Context's fcontext switch), simulated time that jumps to the earliest wake-up, the
// world's timed events in a heap, one seeded random generator, the event log and its digest.
//
// A fiber runs until it waits: it sets when it wants to wake (or SIM_NEVER) and calls
// WaitFiber, which runs every world event that is due first and then switches straight to the
// fiber that wakes earliest (none when that is the caller itself: the host's 100 ms pulse costs
// no switch while nothing else is due). Fibers that wake at the same nanosecond are taken in a
// random order, so the seed decides who wins a lock or runs first after a thread start.
#pragma once

#include <cstddef>
#include <cstdint>

#include "runtime/runtime.h"

typedef int64_t SimTime;  // nanoseconds of true time since the start of the run

const SimTime NS_PER_US = 1000;
const SimTime NS_PER_MS = 1000 * NS_PER_US;
const SimTime NS_PER_SECOND = 1000 * NS_PER_MS;
const SimTime NS_PER_MINUTE = 60 * NS_PER_SECOND;
const SimTime NS_PER_HOUR = 60 * NS_PER_MINUTE;
const SimTime NS_PER_DAY = 24 * NS_PER_HOUR;
const SimTime SIM_NEVER = INT64_MAX;

const uint32_t SIM_MAX_FIBERS = 16;
const size_t SIM_FIBER_STACK_BYTES = 256 * 1024;

// What a fiber runs, as the oracle tells threads apart.
enum FiberRole : uint8_t {
    ROLE_MAIN = 0,     // the simulator's own thread: runs only when the run ends
    ROLE_HOST,         // the service's thread: RunServiceHost
    ROLE_DISPATCHER,   // the process's main thread: the control handler
    ROLE_CLIENT,       // the time thread in the client role
    ROLE_SERVER,       // the time thread in the server role
    ROLE_AGEING,       // the peer registry's ageing thread
    ROLE_OTHER,
};

// What an untimed wait is for: the oracle follows locks to their owners and joins to the threads
// joined, to find a cycle of waits.
enum WaitKind : uint8_t {
    WAIT_OTHER = 0,
    WAIT_LOCK,
    WAIT_JOIN,
};

enum FiberState : uint8_t {
    FIBER_UNUSED = 0,
    FIBER_LIVE,
    FIBER_ENDED,  // returned, not yet joined
};

struct SimFiber {
    void* context;          // the suspended fcontext
    SimTime wakeAt;         // runnable once simNow reaches it; SIM_NEVER while waiting untimed
    const void* waitingOn;  // the lock, wakeup, fiber or socket waited for; null when none
    SimTime waitingSince;   // when the current untimed wait began (the watchdogs read it)
    ThreadFunction function;
    uint64_t argument;
    uint32_t randomState;   // the C runtime's rand state, per thread as there
    uint8_t index;
    uint8_t state;
    uint8_t role;
    uint8_t woken;          // 1 when the wait was ended by a signal rather than by time
    uint8_t joinable;
    uint8_t waitKind;       // of the current untimed wait
    uint32_t locksHeld;     // simulated locks it holds: a thread that ends holding one is a fault
    char* stack;
};

// A world event: what happens at a time, with two arguments the handler reads.
struct SimEvent {
    SimTime at;
    uint64_t order;  // ties in time run in the order they were scheduled
    uint32_t kind;
    uint32_t a;
    uint64_t b;
};

const uint32_t SIM_MAX_EVENTS = 1 << 16;

extern SimTime simNow;
extern SimFiber* simCurrent;
extern SimFiber simFibers[SIM_MAX_FIBERS];
extern uint64_t simSteps;      // scheduler decisions (a fiber resumed or kept, an event run)
extern uint64_t simSwitches;   // fiber switches
extern uint64_t simEventsRun;
extern uint64_t simDigest;     // of every decision and logged event: equal seeds, equal digests

// Seeds the generator and makes the calling thread the main fiber.
void InitScheduler(uint64_t seed);
// The handler of every world event.
void SetEventHandler(void (*handler)(const SimEvent& event));
// Runs everything until EndRun is called (from an event or a fiber).
void RunScheduler();
void EndRun();

// A new fiber running function(argument), runnable now; null when every slot is taken.
SimFiber* StartFiber(ThreadFunction function, uint64_t argument, uint8_t role, uint8_t joinable);
// Releases an ended fiber's slot (JoinThread, or at once for a detached fiber).
void ReleaseFiber(SimFiber* fiber);
// The calling fiber waits until simCurrent->wakeAt (set by the caller) or until woken.
void WaitFiber();
// Waits a time: ns from now (jitter included by the caller if wanted).
void SleepFiber(SimTime duration);
// Waits untimed for object (a lock, a thread to join, or something else): until WakeFibersOn(object).
void WaitFiberOn(const void* object, uint8_t kind);
// Waits for object, at most duration: 1 when woken by WakeFibersOn, 0 when the time ran out.
int32_t WaitFiberOnFor(const void* object, SimTime duration);
// Ends the waits of every fiber waiting on object: they run next, in random order.
void WakeFibersOn(const void* object);
// Lets every other fiber that is runnable now go first, in random order.
void YieldFiber();
// Live fibers of a role (ROLE_OTHER and above count every product thread).
uint32_t CountFibers(uint8_t role);
uint32_t CountLiveFibers();

void ScheduleEvent(SimTime at, uint32_t kind, uint32_t a, uint64_t b);
uint32_t PendingEvents();

// The run's one random generator (xoshiro256**).
uint64_t NextSimRandom();
// 0..bound-1 (bound > 0).
uint64_t SimRandomBelow(uint64_t bound);
// A uniform time in [low, high].
SimTime SimRandomTime(SimTime low, SimTime high);
// 1 with probability numerator / denominator.
int32_t SimChance(uint64_t numerator, uint64_t denominator);

// Adds the values to the digest.
void DigestValue(uint64_t value);
