// The oracle: what the service promises, checked on every event where it shows, never by polling
// the service's code. It keeps its own model of the trouble rules (driven by the causes the world
// produced, not by the service's calls), of the server's peer admission and of the client's
// exchanges, and fails the run with the seed and the date on the first broken promise:
// - after each good exchange the clock is set to the upstream's time within 1 ms (less the half
//   of the path's asymmetry that no client can see), and never to anything else;
// - with the upstream healthy, the clock is set at least once in every day plus the start delay;
// - the reports reaching the workstation are exactly the ones the trouble rules give, in order,
//   by the next delivery; none after the stop; the troubles it holds are the rules' ones;
// - the server answers each admitted valid request once, never a refused or invalid one, from
//   the machine's clock;
// - the role follows the setting; at most one time thread; a stop ends every thread;
// - nothing grows: fibers, sockets, library users, registry entries, the trouble queue, live
//   allocations (bounded, and nothing kept from one run of the service to the next).
#pragma once

#include <cstdint>

#include "sim/scheduler.h"

void OracleServiceStarted();
// The service's process is gone (after what it had queued was lost with it).
void OracleServiceEnded();
void OracleStatus(uint32_t state, uint32_t accepted);
void OracleSinkInstalled();
// The supervision loop waits again, at most timeoutMs; lastWake is when its previous wait ended.
void OracleLoopPulse(SimTime lastWake, uint32_t timeoutMs);
void OracleLookup(int32_t result);
void OracleWorkstation(int32_t listening);
void OracleMinute();
void OracleYear(int32_t year);
void OracleFinal();

// The summary of the run.
void PrintOracleSummary();
