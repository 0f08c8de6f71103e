// Seconds to calendar fields, fields to seconds, and the texts of both.
#include <cstdlib>
#include <ctime>
#include <string>

#include "KTime.h"
#include "Peers.h"

#ifdef KALVOREN_PEER_GLIB
#include <glib.h>
#endif
#ifdef KALVOREN_PEER_POCO
#include <Poco/DateTime.h>
#include <Poco/DateTimeFormatter.h>
#include <Poco/Timestamp.h>
#endif

namespace {

/// Moments all over the years 1970 to 2037, one after the other.
class Moments {
 public:
    std::uint32_t Next() {
        m_nMoment = m_nMoment * 1664525U + 1013904223U;
        return m_nMoment & 0x7FFFFFFFU;
    }

 private:
    std::uint32_t m_nMoment = 1;
};

void FieldsKalvoren(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const KHumanTime fields = KTime::MakeHumanTime(moments.Next(), 0, 0, 0);
        benchmark::DoNotOptimize(fields);
    }
}
BENCHMARK(FieldsKalvoren)->Name("seconds to calendar fields|Kalvoren");

void FieldsLibc(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const std::time_t nMoment = moments.Next();
        tm fields = {};
        gmtime_r(&nMoment, &fields);
        benchmark::DoNotOptimize(fields);
    }
}
BENCHMARK(FieldsLibc)->Name("seconds to calendar fields|gmtime_r");

void SecondsKalvoren(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const int nMoment = static_cast<int>(moments.Next() >> 8);
        const long long nSeconds = KTime::MakeUnixTime(1970 + nMoment % 68, 1 + nMoment % 12, 1 + nMoment % 28,
                                                       nMoment % 24, nMoment % 60, nMoment % 59, 0, 0);
        benchmark::DoNotOptimize(nSeconds);
    }
}
BENCHMARK(SecondsKalvoren)->Name("calendar fields to seconds|Kalvoren");

void SecondsLibc(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const int nMoment = static_cast<int>(moments.Next() >> 8);
        tm fields = {};
        fields.tm_year = 70 + nMoment % 68;
        fields.tm_mon = nMoment % 12;
        fields.tm_mday = 1 + nMoment % 28;
        fields.tm_hour = nMoment % 24;
        fields.tm_min = nMoment % 60;
        fields.tm_sec = nMoment % 59;
        const std::time_t nSeconds = timegm(&fields);
        benchmark::DoNotOptimize(nSeconds);
    }
}
BENCHMARK(SecondsLibc)->Name("calendar fields to seconds|timegm");

/// What finding the fields costs both sides.
void SecondsNothing(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const int nMoment = static_cast<int>(moments.Next() >> 8);
        const int nFields[] = {1970 + nMoment % 68, 1 + nMoment % 12, 1 + nMoment % 28,
                               nMoment % 24,        nMoment % 60,     nMoment % 59};
        benchmark::DoNotOptimize(nFields);
    }
}
BENCHMARK(SecondsNothing)->Name("calendar fields to seconds|the fields alone");

void TextKalvoren(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const KTime time(static_cast<int>(moments.Next()), 0, 0);
        const KString text = time.GetHumanTimeString(3, 0, 0);
        benchmark::DoNotOptimize(text.GetBuffer());
    }
}
BENCHMARK(TextKalvoren)->Name("a time's text|Kalvoren");

void TextLibc(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const std::time_t nMoment = moments.Next();
        tm fields = {};
        gmtime_r(&nMoment, &fields);
        char szText[64];
        std::strftime(szText, sizeof szText, "%Y/%m/%d %H:%M:%S", &fields);
        benchmark::DoNotOptimize(szText);
    }
}
BENCHMARK(TextLibc)->Name("a time's text|gmtime_r, strftime");

#ifdef KALVOREN_PEER_GLIB
void FieldsGlib(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        GDateTime* const pTime = g_date_time_new_from_unix_utc(moments.Next());
        int nFields[6] = {};
        g_date_time_get_ymd(pTime, &nFields[0], &nFields[1], &nFields[2]);
        nFields[3] = g_date_time_get_hour(pTime);
        nFields[4] = g_date_time_get_minute(pTime);
        nFields[5] = g_date_time_get_second(pTime);
        benchmark::DoNotOptimize(nFields);
        g_date_time_unref(pTime);
    }
}
BENCHMARK(FieldsGlib)->Name("seconds to calendar fields|GDateTime");

void SecondsGlib(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const int nMoment = static_cast<int>(moments.Next() >> 8);
        GDateTime* const pTime = g_date_time_new_utc(1970 + nMoment % 68, 1 + nMoment % 12, 1 + nMoment % 28,
                                                     nMoment % 24, nMoment % 60, nMoment % 59);
        gint64 nSeconds = g_date_time_to_unix(pTime);
        benchmark::DoNotOptimize(nSeconds);
        g_date_time_unref(pTime);
    }
}
BENCHMARK(SecondsGlib)->Name("calendar fields to seconds|GDateTime");

void TextGlib(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        GDateTime* const pTime = g_date_time_new_from_unix_utc(moments.Next());
        char* const pszText = g_date_time_format(pTime, "%Y/%m/%d %H:%M:%S");
        benchmark::DoNotOptimize(pszText);
        g_free(pszText);
        g_date_time_unref(pTime);
    }
}
BENCHMARK(TextGlib)->Name("a time's text|GDateTime");
#endif

#ifdef KALVOREN_PEER_POCO
void FieldsPoco(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const Poco::DateTime fields(Poco::Timestamp::fromEpochTime(moments.Next()));
        benchmark::DoNotOptimize(fields);
    }
}
BENCHMARK(FieldsPoco)->Name("seconds to calendar fields|POCO");

void SecondsPoco(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const int nMoment = static_cast<int>(moments.Next() >> 8);
        const Poco::DateTime fields(1970 + nMoment % 68, 1 + nMoment % 12, 1 + nMoment % 28, nMoment % 24, nMoment % 60,
                                    nMoment % 59);
        std::time_t nSeconds = fields.timestamp().epochTime();
        benchmark::DoNotOptimize(nSeconds);
    }
}
BENCHMARK(SecondsPoco)->Name("calendar fields to seconds|POCO");

void TextPoco(benchmark::State& state) {
    Moments moments;
    for (auto _ : state) {
        const std::string text =
            Poco::DateTimeFormatter::format(Poco::Timestamp::fromEpochTime(moments.Next()), "%Y/%m/%d %H:%M:%S");
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(TextPoco)->Name("a time's text|POCO");
#endif

}  // namespace
