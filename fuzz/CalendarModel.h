// The calendar as its description tells it: years and months are summed up one by one.
#ifndef KALVOREN_FUZZ_CALENDARMODEL_H
#define KALVOREN_FUZZ_CALENDARMODEL_H

#include "Fuzz.h"

namespace fuzz {

inline bool IsLeap(int nYear) {
    return nYear % 4 == 0 && (nYear % 100 != 0 || nYear % 400 == 0);
}

/// The seconds of any fields, in range or not: the sum wraps. Years before the first one take no days, but have the February
/// that they have.
inline int ModelSeconds(short nYear, short nMonth, short nDay, short nHour, short nMinute, short nSecond) {
    static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    long long nDays = nDay - 1;
    for (int nBefore = 1970; nBefore < nYear; ++nBefore) {
        nDays += IsLeap(nBefore) ? 366 : 365;
    }
    for (int nBefore = 1; nBefore < nMonth && nBefore <= 12; ++nBefore) {
        nDays += kDays[nBefore - 1] + (nBefore == 2 && IsLeap(nYear) ? 1 : 0);
    }
    return Low32(nDays * 86400 + nHour * 3600LL + nMinute * 60LL + nSecond);
}

}  // namespace fuzz

#endif  // KALVOREN_FUZZ_CALENDARMODEL_H
