// Command-line numbers of the field and rig tools: one strict reader, so that every tool refuses
// the same malformed values.
#pragma once

#include <cstdlib>

// A whole decimal number in [low, high]; false for anything else (empty, trailing text, range).
inline bool ParseNumber(const char* text, long low, long high, long* value) {
    if (text == nullptr) {
        return false;
    }
    char* end = nullptr;
    const long parsed = std::strtol(text, &end, 10);
    if (end == text || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    *value = parsed;
    return true;
}

// A decimal number (digits with an optional fraction) in [low, high]; false for anything else,
// including exponents, "inf" and "nan", which strtod would accept.
inline bool ParseDecimal(const char* text, double low, double high, double* value) {
    if (text == nullptr || *text == '\0') {
        return false;
    }
    for (const char* at = text; *at != '\0'; ++at) {
        if ((*at < '0' || *at > '9') && *at != '.') {
            return false;
        }
    }
    char* end = nullptr;
    const double parsed = std::strtod(text, &end);
    if (end == text || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    *value = parsed;
    return true;
}
