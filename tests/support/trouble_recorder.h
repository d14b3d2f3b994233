// Observes SNTP troubles as the workstation would: installs a sink on the trouble queue and
// turns each drained record back into its SNTP result code (by its default text) and state.
#pragma once

#include <cstdint>
#include <vector>

struct SeenTrouble {
    int32_t code;    // the SNTP result whose text the record carries; -1 for an unknown text
    uint32_t state;  // TROUBLE_SET or TROUBLE_CLEARED

    bool operator==(const SeenTrouble& other) const { return code == other.code && state == other.state; }
};

// Creates the queue, drops whatever is queued, zeroes the active-trouble mask and installs the
// recording sink.
void StartTroubleRecorder();
// Removes the sink and drops what is still queued.
void StopTroubleRecorder();
// Drains the queue; every record seen since the last call, in order.
std::vector<SeenTrouble> TakeTroubles();
