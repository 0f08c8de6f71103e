// What the jobs share whose instructions are counted.
#ifndef KALVOREN_LINEARJOBS_H
#define KALVOREN_LINEARJOBS_H

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "BareCalls.h"

using Job = std::function<void()>;

/// Everything behind the call is measured.
void Measured(const Job& job);

/// The same for a job whose lines in the log go to /dev/null; so does standard error from then on.
void MeasuredWithLines(const Job& job);

std::string Repeated(const std::string& piece, int nTimes);

/// A piece of a text that nearly holds a word of such pieces and one other letter.
std::string NearlyThere();

/// A directory with so many empty files, removed with everything in it at the end.
class FilledDirectory {
 public:
    explicit FilledDirectory(int nFiles);
    ~FilledDirectory();
    FilledDirectory(const FilledDirectory&) = delete;
    FilledDirectory& operator=(const FilledDirectory&) = delete;

    const char* Path() const { return m_Path.c_str(); }

 private:
    std::string m_Path;
};

/// The instants of the jobs about time: all over the years 1970 to 2037.
inline unsigned int MomentOf(int i) {
    return (static_cast<unsigned int>(i) * 2654435761U) & 0x7FFFFFFFU;
}

/// Fields of a date, found without a division: dividing is what differs most between processors, and it is not the job's.
struct Date {
    int nYear;
    int nMonth;
    int nDay;
    int nHour;
};
inline Date DateOf(int i) {
    const auto nBits = static_cast<unsigned int>(i) * 2654435761U;
    return {1970 + static_cast<int>(nBits >> 26), 1 + static_cast<int>(nBits >> 23 & 7),
            1 + static_cast<int>(nBits >> 19 & 15), static_cast<int>(nBits >> 15 & 15)};
}

/// What the jobs about text and logging work on.
constexpr const char* kPiece = "sixteen letters.";
constexpr const char* kLogFormat = "stream %d: %s";
constexpr const char* kLogText = "1920x1080 at 25 frames a second";

/// Begins as words of the text do in which it is sought, and has a letter that is nowhere in it.
constexpr const char* kRareWord = "once";

/// How often the jobs are done whose size is not how often they are done.
constexpr int kRepetitions = 1000;

/// The same jobs done with the bare calls of libc and of the language's library, by the names of the library's jobs.
const std::map<std::string, void (*)(int)>& BareJobs();

#endif  // KALVOREN_LINEARJOBS_H
