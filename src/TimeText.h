// The texts of calendar fields, put together digit by digit: printf takes ten times as long.
#ifndef KALVOREN_SRC_TIMETEXT_H
#define KALVOREN_SRC_TIMETEXT_H

#include <cstdlib>
#include <cstring>

#include "KTime.h"

/// A text that grows at its end. There is room for a date, a time, microseconds and 16 characters more. The fields are
/// those that a conversion gives: a year of four digits, microseconds of at most six and a sign.
class TimeText {
 public:
    TimeText() : m_pEnd(m_szText) {}

    const char* Begin() const { return m_szText; }
    std::size_t Length() const { return static_cast<std::size_t>(m_pEnd - m_szText); }

    // Here and below: where it is a part of the code that calls it, the piece's length is known there.
    [[gnu::always_inline]] inline TimeText& Text(const char* pszText) {
        const std::size_t nLen = std::strlen(pszText);
        std::memcpy(m_pEnd, pszText, nLen);
        m_pEnd += nLen;
        return *this;
    }

    [[gnu::always_inline]] inline TimeText& Date(const KHumanTime& human, const char* pszBetween) {
        TwoDigits(human.year / 100);
        TwoDigits(human.year % 100);
        Text(pszBetween);
        TwoDigits(human.month);
        Text(pszBetween);
        return TwoDigits(human.day);
    }

    [[gnu::always_inline]] inline TimeText& TimeOfDay(const KHumanTime& human, const char* pszBetween) {
        TwoDigits(human.hour);
        Text(pszBetween);
        TwoDigits(human.minute);
        Text(pszBetween);
        return TwoDigits(human.second);
    }

    /// Six characters, a sign among them, or seven where six digits have a sign.
    TimeText& Microseconds(const KHumanTime& human) {
        const int nUSec = std::abs(human.usec);
        if (human.usec < 0) {
            Text("-");
        }
        if (human.usec >= 0 || nUSec >= 100000) {
            Digit(nUSec / 100000);
        }
        Digit(nUSec / 10000 % 10);
        TwoDigits(nUSec / 100 % 100);
        return TwoDigits(nUSec % 100);
    }

    TimeText& WeekDay(const KHumanTime& human) {
        Digit(human.weekDay);
        return *this;
    }

 private:
    void Digit(int nValue) { *m_pEnd++ = static_cast<char>('0' + nValue); }

    TimeText& TwoDigits(int nValue) {
        Digit(nValue / 10);
        Digit(nValue % 10);
        return *this;
    }

    char m_szText[48];
    char* m_pEnd;
};

#endif  // KALVOREN_SRC_TIMETEXT_H
