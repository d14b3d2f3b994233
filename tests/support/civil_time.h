// A UTC date as a FILETIME, from the calendar alone (H. Hinnant's days-from-civil).
#pragma once

#include <cstdint>

inline int64_t FileTimeOf(int64_t year, int64_t month, int64_t day, int64_t hour = 0, int64_t minute = 0,
                          int64_t second = 0) {
    const int64_t TICKS_PER_SECOND = 10000000;
    const int64_t FILETIME_OF_1970 = 116444736000000000LL;
    year -= month <= 2 ? 1 : 0;
    const int64_t era = (year >= 0 ? year : year - 399) / 400;
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    const int64_t days = era * 146097 + dayOfEra - 719468;  // since 1970-01-01
    const int64_t seconds = days * 86400 + hour * 3600 + minute * 60 + second;
    return FILETIME_OF_1970 + seconds * TICKS_PER_SECOND;
}
