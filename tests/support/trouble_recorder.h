// SNTP troubles as the workstation sees them: each record's result code and state.
#pragma once

#include <cstdint>
#include <vector>

struct SeenTrouble {
    int32_t code;  // found by its default text; -1 for an unknown text
    uint32_t state;

    bool operator==(const SeenTrouble& other) const { return code == other.code && state == other.state; }
};

// Each drops what is queued and zeroes the mask.
void StartTroubleRecorder();
void StopTroubleRecorder();
std::vector<SeenTrouble> TakeTroubles();
