#include "KFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/Interpose.h"
#include "support/LeaveProcess.h"
#include "support/LogLines.h"
#include "support/MutexCalls.h"
#include "support/PointerLeftBy.h"
#include "support/Support.h"
#include "support/Texts.h"

using support::ContentOf;
using support::LogOf;
using support::ScopedChecks;
using support::ScopedDirectory;
using support::ScopedLevel;
using support::TextOf;

namespace {

constexpr std::size_t kNoSize = static_cast<std::size_t>(-1);
constexpr uid_t kSomeUser = 4242;
constexpr gid_t kSomeGroup = 4343;

KPath PathOf(const std::string& text) {
    return KPath(text.c_str());
}

/// "Error****: <text>[<path>]" with the two line feeds of an error whose text ends in one.
std::string ErrorLine(const std::string& text, const std::string& path) {
    return "Error****: " + text + "[" + path + "]\n\n";
}

/// The descriptor that this process has open on a file; -1 when there is none.
int DescriptorOf(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone) == path) {
            return std::stoi(entry.path().filename());
        }
    }
    return -1;
}

/// A file object that is never destroyed: one whose lock stays held.
KFile& Undestroyed(const KPath& path, bool bWrite) {
    static std::vector<KFile*>& kept = *new std::vector<KFile*>;
    kept.push_back(new KFile(path, bWrite));
    return *kept.back();
}

/// A file object without its record, which it has as its first field. The record comes back at the end of the block.
class WithoutRecord {
 public:
    explicit WithoutRecord(KFile& file) : m_pField(reinterpret_cast<char*>(&file) + sizeof(void*)) {
        std::memcpy(&m_pRecord, m_pField, sizeof(m_pRecord));
        std::memset(m_pField, 0, sizeof(m_pRecord));
    }
    ~WithoutRecord() { std::memcpy(m_pField, &m_pRecord, sizeof(m_pRecord)); }
    WithoutRecord(const WithoutRecord&) = delete;
    WithoutRecord& operator=(const WithoutRecord&) = delete;

 private:
    char* m_pField;
    void* m_pRecord;
};

/// Sets an environment variable, or removes it, and puts it back at the end of the block.
class ScopedEnvironment {
 public:
    ScopedEnvironment(const char* pszName, const char* pszValue) : m_pszName(pszName) {
        if (const char* const pszBefore = std::getenv(pszName)) {
            m_Before = pszBefore;
        }
        Set(pszValue);
    }
    ~ScopedEnvironment() { Set(m_Before ? m_Before->c_str() : nullptr); }
    ScopedEnvironment(const ScopedEnvironment&) = delete;
    ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
    void Set(const char* pszValue) const {
        if (pszValue != nullptr) {
            setenv(m_pszName, pszValue, 1);
        } else {
            unsetenv(m_pszName);
        }
    }

    const char* m_pszName;
    std::optional<std::string> m_Before;
};

/// Drops the superuser's rights for the length of a block. Held() tells whether there are none now.
class ScopedOrdinaryUser {
 public:
    ScopedOrdinaryUser() : m_fgDropped(geteuid() == 0 && seteuid(kSomeUser) == 0) {}
    ~ScopedOrdinaryUser() {
        if (m_fgDropped) {
            EXPECT_EQ(seteuid(0), 0);
        }
    }
    ScopedOrdinaryUser(const ScopedOrdinaryUser&) = delete;
    ScopedOrdinaryUser& operator=(const ScopedOrdinaryUser&) = delete;

    bool Held() const { return geteuid() != 0; }

 private:
    bool m_fgDropped;
};

/// A FIFO that is held open, so that opening it does not wait for the other side.
class Fifo {
 public:
    explicit Fifo(const std::string& path) {
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        m_nDescriptor = open(path.c_str(), O_RDWR);
        EXPECT_GE(m_nDescriptor, 0);
    }
    ~Fifo() { close(m_nDescriptor); }
    Fifo(const Fifo&) = delete;
    Fifo& operator=(const Fifo&) = delete;

 private:
    int m_nDescriptor;
};

class KFileTest : public testing::Test {
 protected:
    /// The test's scratch directory. A test of a failing check does without: nobody would tidy up after it.
    const ScopedDirectory& Directory() {
        if (!m_Directory) {
            m_Directory.emplace();
        }
        return *m_Directory;
    }

    /// A directory in it whose path has this length.
    std::string DirectoryOfLength(std::size_t nLength) {
        constexpr std::size_t kLongestName = 120;
        std::string path = Directory().Path();
        while (path.size() < nLength) {
            const std::size_t nLeft = nLength - path.size();
            // Never so long that a slash alone would be left.
            path += "/" + std::string(nLeft <= kLongestName ? nLeft - 1 : kLongestName / 2, 'x');
        }
        std::filesystem::create_directories(path);
        return path;
    }

 private:
    std::optional<ScopedDirectory> m_Directory;
};

}  // namespace

// ------------------------------------------------------------------------------------------------ Making and closing

TEST_F(KFileTest, IsMadeClosedAndWithoutAPath) {
    KFile file;
    EXPECT_FALSE(file.IsValid());
    EXPECT_EQ(TextOf(file.GetPath()), "");
    EXPECT_EQ(file.GetPath().GetType(), KPath::TYPE_NONE);
}

TEST_F(KFileTest, KeepsThePathWithItsTypeAndOpensNothing) {
    KPath path("a/b");
    path.SetType(KPath::TYPE_FILE);
    KFile file(path, true);
    EXPECT_FALSE(file.IsValid());
    EXPECT_EQ(TextOf(file.GetPath()), "a/b");
    EXPECT_EQ(file.GetPath().GetType(), KPath::TYPE_FILE);
}

TEST_F(KFileTest, TakesATextWithSlashesForBackslashes) {
    EXPECT_EQ(TextOf(KFile("a\\b\\c", false).GetPath()), "a/b/c");
    EXPECT_EQ(TextOf(KFile(static_cast<const char*>(nullptr), false).GetPath()), "");
}

TEST_F(KFileTest, InitAndDeinitDoNothing) {
    EXPECT_EQ(LogOf([] {
                  EXPECT_TRUE(KFile::Init());
                  EXPECT_TRUE(KFile::Deinit());
              }),
              "");
}

TEST_F(KFileTest, OpeningForReadingNeedsTheFile) {
    const std::string path = Directory().Entry("missing");
    KFile file;
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.Open(PathOf(path), false)); }),
              "Log: *********File Open\n" + ErrorLine("File Open", path));
    EXPECT_FALSE(file.IsValid());
    EXPECT_EQ(TextOf(file.GetPath()), path);
}

TEST_F(KFileTest, OpensForReadingOnly) {
    const std::string path = Directory().File("a", "text");
    KFile file;
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(file.Open(PathOf(path), false)); }), "Log: *********File Open\n");
    ASSERT_TRUE(file.IsValid());
    EXPECT_EQ(fcntl(DescriptorOf(path), F_GETFL) & O_ACCMODE, O_RDONLY);
    EXPECT_EQ(LogOf([&] {
                  char szBlock[] = "new";
                  EXPECT_FALSE(file.Write(0, szBlock, 3));
              }),
              ErrorLine("File Write", path));
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(ContentOf(path), "text");
}

TEST_F(KFileTest, OpeningForWritingEmptiesAnExistingFile) {
    const std::string path = Directory().File("a", "text");
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(path), true));
    EXPECT_EQ(fcntl(DescriptorOf(path), F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(ContentOf(path), "");
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, OpeningForWritingMakesAFileThatCanBeReadBack) {
    const std::string path = Directory().Entry("a");
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(path), true));
    char szBlock[] = "text";
    char szBack[] = "....";
    EXPECT_TRUE(file.Write(0, szBlock, 4));
    EXPECT_TRUE(file.Read(0, szBack, 4));
    EXPECT_STREQ(szBack, "text");
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(ContentOf(path), "text");
}

TEST_F(KFileTest, OpensATextWithSlashesForBackslashes) {
    std::filesystem::create_directory(Directory().Entry("sub"));
    const std::string path = Directory().File("sub/a", "text");
    std::string text = Directory().Entry("sub\\a");
    KFile file;
    ASSERT_TRUE(file.Open(&text[0], false));
    EXPECT_EQ(TextOf(file.GetPath()), path);
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, OpensItsOwnPathForWhatItWasMadeFor) {
    const std::string path = Directory().File("a", "text");
    KFile reading(PathOf(path), false);
    EXPECT_TRUE(reading.Open());
    EXPECT_TRUE(reading.Close());
    EXPECT_EQ(ContentOf(path), "text");
    KFile writing(path.c_str(), true);
    EXPECT_TRUE(writing.Open());
    EXPECT_TRUE(writing.Close());
    EXPECT_EQ(ContentOf(path), "");
}

TEST_F(KFileTest, OpeningAnotherPathKeepsWhatItWasMadeFor) {
    const std::string first = Directory().File("first", "text");
    const std::string second = Directory().Entry("second");
    KFile file(PathOf(first), false);
    ASSERT_TRUE(file.Open(PathOf(second), true));
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(TextOf(file.GetPath()), second);
    Directory().File("second", "kept");
    ASSERT_TRUE(file.Open());
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(ContentOf(second), "kept") << "it was opened for writing";
}

TEST_F(KFileTest, AFileMadeWithoutAPathIsForReading) {
    const std::string path = Directory().File("a", "kept");
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(path), false));
    ASSERT_TRUE(file.Open());
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(ContentOf(path), "kept");
}

TEST_F(KFileTest, OpeningTakesTheTypeOfThePath) {
    KPath path = PathOf(Directory().Path());
    path.SetType(KPath::TYPE_DIRECTORY);
    KFile file;
    ASSERT_TRUE(file.Open(path, false));
    EXPECT_EQ(file.GetPath().GetType(), KPath::TYPE_DIRECTORY);
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, OpeningAnOpenFileClosesItFirst) {
    const std::string first = Directory().File("first", "1");
    const std::string second = Directory().File("second", "2");
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(first), false));
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(file.Open(PathOf(second), false)); }),
              "Log: ****File Close\nLog: *********File Open\n");
    EXPECT_EQ(DescriptorOf(first), -1);
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, AFailedOpenLeavesAnOpenFileClosed) {
    const std::string path = Directory().File("a", "text");
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(path), false));
    EXPECT_FALSE(file.Open(PathOf(Directory().Entry("missing")), false));
    EXPECT_FALSE(file.IsValid());
    EXPECT_EQ(DescriptorOf(path), -1);
}

TEST_F(KFileTest, ClosesOnce) {
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(Directory().File("a", "text")), false));
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(file.Close()); }), "Log: ****File Close\n");
    EXPECT_FALSE(file.IsValid());
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(file.Close()); }), "") << "it was not open";
}

TEST_F(KFileTest, AFailedCloseForgetsTheStream) {
    if (access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "/dev/full is not there to fail the close";
    }
    KFile file;
    ASSERT_TRUE(file.Open(KPath("/dev/full"), true));
    char chByte = 'x';
    EXPECT_EQ(LogOf([&] {
                  EXPECT_TRUE(file.Write(-1, &chByte, 1)) << "the byte is buffered";
                  EXPECT_FALSE(file.Close());
              }),
              "Log: ****File Close\n" + ErrorLine("File Close", "/dev/full"));
    EXPECT_FALSE(file.IsValid());
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, TheDestructorDoesNotCloseAnOpenStream) {
    const std::string path = Directory().File("a", "text");
    EXPECT_EQ(LogOf([&] {
                  KFile file;
                  EXPECT_TRUE(file.Open(PathOf(path), false));
              }),
              "Log: *********File Open\n");
    const int nDescriptor = DescriptorOf(path);
    EXPECT_GE(nDescriptor, 0);
    close(nDescriptor);
}

TEST_F(KFileTest, OpensTheEmptyNameOfAPathThatIsTooLong) {
    const std::string path = Directory().Path() + "/" + std::string(2048, 'x');
    KFile file;
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.Open(PathOf(path), true)); }),
              "Log: *********File Open\n" + ErrorLine("File Open", path));
}

TEST_F(KFileTest, ACopyWithTheChecksOffIsAFreshFile) {
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(Directory().File("a", "text")), false));
    KFile copy(file);
    EXPECT_FALSE(copy.IsValid());
    EXPECT_EQ(TextOf(copy.GetPath()), "");
    copy = file;
    EXPECT_FALSE(copy.IsValid());
    EXPECT_EQ(TextOf(copy.GetPath()), "");
    EXPECT_TRUE(file.IsValid());
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, CopyingFailsACheck) {
    KFile file;
    EXPECT_CHECK_FAILS(KFile copy(file), "0", "src/api/KFile", "KFile::KFile(const KFile&)");
    KFile other;
    EXPECT_CHECK_FAILS(other = file, "0", "src/api/KFile", "KFile& KFile::operator=(const KFile&)");
}

// ----------------------------------------------------------------------------------------------- Reading and writing

namespace {

struct ReadCase {
    const char* pszName;
    long long nPosition;
    std::size_t nSize;
    const char* pszRead;  ///< What is in the buffer of dots afterwards.
    bool fgDone;
};

std::ostream& operator<<(std::ostream& out, const ReadCase& test) {
    return out << test.pszName;
}

class KFileReadTest : public testing::TestWithParam<ReadCase> {};

}  // namespace

TEST_P(KFileReadTest, ReadsAWholeBlockOrFails) {
    const ReadCase& test = GetParam();
    const ScopedDirectory directory;
    const std::string path = directory.File("a", "0123456789");
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(path), false));
    char szBuffer[] = "............";
    EXPECT_EQ(LogOf([&] { EXPECT_EQ(file.Read(test.nPosition, szBuffer, test.nSize), test.fgDone); }),
              test.fgDone ? "" : ErrorLine("File Read", path));
    EXPECT_STREQ(szBuffer, test.pszRead);
    EXPECT_TRUE(file.Close());
}

INSTANTIATE_TEST_SUITE_P(
    KFileTest, KFileReadTest,
    testing::Values(ReadCase{"AtTheStart", 0, 4, "0123........", true},
                    ReadCase{"InTheMiddle", 3, 4, "3456........", true},
                    ReadCase{"TheWholeFile", 0, 10, "0123456789..", true},
                    ReadCase{"PastTheEndLeavesWhatThereWasInTheBuffer", 8, 4, "89..........", false},
                    ReadCase{"ALongerBlockThanTheFile", 0, 11, "0123456789..", false},
                    ReadCase{"BehindTheEnd", 11, 1, "............", false},
                    ReadCase{"NoBytesAlwaysFails", 0, 0, "............", false},
                    ReadCase{"MinusOneIsTheEnd", -1, 1, "............", false},
                    ReadCase{"OtherNegativePositions", -2, 1, "............", false},
                    ReadCase{"TheHighestPosition", 0x7FFFFFFF, 1, "............", false},
                    ReadCase{"TwoToThe31CountsAsNegative", 0x80000000LL, 1, "............", false},
                    ReadCase{"TheLow32BitsOfMinusOneAreNotTheEnd", 0xFFFFFFFFLL, 1, "............", false},
                    ReadCase{"TwoToThe32CountsAsTheStart", 0x100000000LL, 2, "01..........", true},
                    ReadCase{"OnlyTheLow32BitsCount", 0x7654321000000005LL, 2, "56..........", true},
                    ReadCase{"OfANegativePositionToo", LLONG_MIN + 7, 2, "78..........", true}),
    [](const testing::TestParamInfo<ReadCase>& test) { return test.param.pszName; });

namespace {

struct WriteCase {
    const char* pszName;
    long long nPosition;
    std::size_t nSize;
    std::string content;
    bool fgDone;
};

std::ostream& operator<<(std::ostream& out, const WriteCase& test) {
    return out << test.pszName;
}

class KFileWriteTest : public testing::TestWithParam<WriteCase> {};

}  // namespace

TEST_P(KFileWriteTest, WritesAWholeBlockOrFails) {
    const WriteCase& test = GetParam();
    const ScopedDirectory directory;
    const std::string path = directory.Entry("a");
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(path), true));
    char szBefore[] = "01234";
    ASSERT_TRUE(file.Write(0, szBefore, 5));
    char szBlock[] = "abc";
    EXPECT_EQ(LogOf([&] { EXPECT_EQ(file.Write(test.nPosition, szBlock, test.nSize), test.fgDone); }),
              test.fgDone ? "" : ErrorLine("File Write", path));
    EXPECT_TRUE(file.Close());
    EXPECT_EQ(ContentOf(path), test.content);
}

INSTANTIATE_TEST_SUITE_P(
    KFileTest, KFileWriteTest,
    testing::Values(WriteCase{"AtTheStart", 0, 3, "abc34", true}, WriteCase{"OverTheEnd", 4, 3, "0123abc", true},
                    WriteCase{"BehindTheEndLeavesZeros", 7, 3, std::string("01234\0\0abc", 10), true},
                    WriteCase{"MinusOneAppends", -1, 3, "01234abc", true},
                    WriteCase{"NoBytesAlwaysFails", 0, 0, "01234", false},
                    WriteCase{"OtherNegativePositions", -2, 3, "01234", false},
                    WriteCase{"TheLow32BitsOfMinusOneDoNotAppend", 0xFFFFFFFFLL, 3, "01234", false},
                    WriteCase{"OnlyTheLow32BitsCount", 0x100000001LL, 3, "0abc4", true}),
    [](const testing::TestParamInfo<WriteCase>& test) { return test.param.pszName; });

TEST_F(KFileTest, AWriteThatTheSystemRefusesFails) {
    if (access("/dev/full", W_OK) != 0) {
        GTEST_SKIP() << "/dev/full is not there to refuse it";
    }
    KFile file;
    ASSERT_TRUE(file.Open(KPath("/dev/full"), true));
    std::vector<char> block(1 << 20);
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.Write(0, block.data(), block.size())); }),
              ErrorLine("File Write", "/dev/full"));
    EXPECT_TRUE(file.IsValid()) << "a failure leaves the file open";
    file.Close();
}

TEST_F(KFileTest, AClosedFileFailsLikeTheSystemWithTheChecksOff) {
    const std::string path = Directory().File("a", "text");
    KFile file(PathOf(path), false);
    char szBuffer[] = "....";
    long long nPosition = 7;
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.Read(0, szBuffer, 4)); }), ErrorLine("File Read", path));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.Write(0, szBuffer, 4)); }), ErrorLine("File Write", path));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.GetPosition(nPosition)); }), ErrorLine("File Get Position", path));
    EXPECT_EQ(nPosition, -1) << "as ftell says";
    EXPECT_STREQ(szBuffer, "....");
    EXPECT_EQ(ContentOf(path), "text");
    EXPECT_TRUE(file.Close()) << "the lock was given back";
}

TEST_F(KFileTest, ReadWriteAndGetPositionFailACheckOnAClosedFile) {
    KFile file;
    char chByte = 'x';
    long long nPosition = 0;
    EXPECT_CHECK_FAILS(file.Read(0, &chByte, 1), "pInfo->mHandle", "src/api/KFile",
                       "bool KFile::Read(long long int, char*, size_t)");
    EXPECT_CHECK_FAILS(file.Write(0, &chByte, 1), "pInfo->mHandle", "src/api/KFile",
                       "bool KFile::Write(long long int, char*, size_t)");
    EXPECT_CHECK_FAILS(file.GetPosition(nPosition), "pInfo->mHandle", "src/api/KFile",
                       "bool KFile::GetPosition(long long int&)");
}

// --------------------------------------------------------------------------------------------------- Position and size

TEST_F(KFileTest, SetPositionOnAClosedFileIsFalseAndSilent) {
    KFile file(PathOf(Directory().File("a", "text")), false);
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.SetPosition(0)); }), "");
    const ScopedChecks checks(true);
    EXPECT_FALSE(file.SetPosition(0)) << "no check is made";
}

namespace {

struct PositionCase {
    long long nSet;
    long long nGot;
};

}  // namespace

TEST_F(KFileTest, GetPositionTellsWhatSetPositionSet) {
    const std::string path = Directory().File("a", "0123456789");
    for (const PositionCase& test : {PositionCase{0, 0}, PositionCase{4, 4}, PositionCase{-1, 10}, PositionCase{99, 99},
                                     PositionCase{0x7FFFFFFF, 0x7FFFFFFF}, PositionCase{0x500000003LL, 3}}) {
        KFile& file = Undestroyed(PathOf(path), false);
        ASSERT_TRUE(file.Open());
        EXPECT_TRUE(file.SetPosition(test.nSet)) << test.nSet;
        long long nPosition = -7;
        EXPECT_TRUE(file.GetPosition(nPosition));
        EXPECT_EQ(nPosition, test.nGot) << test.nSet;
    }
}

TEST_F(KFileTest, AFailedMoveIsLogged) {
    const std::string path = Directory().File("a", "text");
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(path), false));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.SetPosition(-2)); }), ErrorLine("File Position", path));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.SetPosition(0xFFFFFFFFLL)); }), ErrorLine("File Position", path));
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, AFailedGetPositionGivesTheLockBack) {
    const std::string path = Directory().Entry("fifo");
    const Fifo fifo(path);
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(path), false));
    long long nPosition = 7;
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.GetPosition(nPosition)); }), ErrorLine("File Get Position", path));
    EXPECT_EQ(nPosition, -1);
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, AfterGetPositionEveryOtherUseBlocks) {
    // What blocks is ended by the alarm; what does not block ends with 0.
    KFile& file = Undestroyed(KPath("/dev/null"), false);
    ASSERT_TRUE(file.Open());
    long long nPosition = 0;
    char chByte = 0;
    EXPECT_EXIT(
        {
            file.GetPosition(nPosition);
            alarm(1);
            file.Read(0, &chByte, 1);
            _exit(0);
        },
        testing::KilledBySignal(SIGALRM), "");
    EXPECT_EXIT(
        {
            file.GetPosition(nPosition);
            alarm(1);
            std::thread([&] { file.Read(0, &chByte, 1); }).join();
            _exit(0);
        },
        testing::KilledBySignal(SIGALRM), "");
    EXPECT_EXIT(
        {
            alarm(10);
            file.SetPosition(1);
            std::thread([&] { file.Read(0, &chByte, 1); }).join();
            file.IsValid();
            file.GetPosition(nPosition);
            support::LeaveProcess(file.IsValid() ? 3 : 4);
        },
        testing::ExitedWithCode(3), "")
        << "nothing else keeps the lock, and IsValid() takes none";
}

/// Ends a file with its lock held. The thread sanitizer knows this name.
void DestroyAFileThatKeepsItsLock() {
    KFile file;
    file.Open(KPath("/dev/null"), false);
    long long nPosition = 0;
    file.GetPosition(nPosition);
}

TEST_F(KFileTest, DestroyingAFileAfterGetPositionFailsTheLocksCheck) {
    EXPECT_CHECK_FAILS(DestroyAFileThatKeepsItsLock(), "nRet == 0", "src/api/KThread", "virtual KMutex::~KMutex()");
}

TEST_F(KFileTest, TellsItsSizeAndKeepsItsPosition) {
    for (const char* const pszContent : {"", "x", "0123456789"}) {
        KFile& file = Undestroyed(PathOf(Directory().File("a", pszContent)), false);
        ASSERT_TRUE(file.Open());
        EXPECT_TRUE(file.SetPosition(1));
        EXPECT_EQ(LogOf([&] { EXPECT_EQ(file.GetSize(), std::strlen(pszContent)); }), "");
        long long nPosition = 0;
        EXPECT_TRUE(file.GetPosition(nPosition));
        EXPECT_EQ(nPosition, 1);
    }
}

TEST_F(KFileTest, ItsSizeCountsWhatWasJustWritten) {
    KFile file(PathOf(Directory().Entry("a")), true);
    ASSERT_TRUE(file.Open());
    char szBlock[] = "0123456789";
    EXPECT_TRUE(file.Write(5, szBlock, 10));
    EXPECT_EQ(file.GetSize(), 15u);
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, AClosedFileAndOneWithoutPositionsHaveNoSize) {
    const std::string path = Directory().Entry("fifo");
    const Fifo fifo(path);
    KFile file(PathOf(path), false);
    EXPECT_EQ(LogOf([&] { EXPECT_EQ(file.GetSize(), kNoSize); }), "");
    ASSERT_TRUE(file.Open());
    EXPECT_EQ(LogOf([&] { EXPECT_EQ(file.GetSize(), kNoSize); }), "");
    EXPECT_TRUE(file.Close());
}

TEST_F(KFileTest, ADirectoryOpensAndCannotBeRead) {
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(Directory().Path()), false));
    file.GetSize();
    char chByte = 0;
    EXPECT_FALSE(file.Read(0, &chByte, 1));
    EXPECT_TRUE(file.Close());
    EXPECT_FALSE(file.Open(PathOf(Directory().Path()), true)) << "not for writing";
}

// ------------------------------------------------------------------------------------------------ Without its record

TEST_F(KFileTest, WithoutItsRecordEverythingIsDoneWithNothing) {
    const std::string path = Directory().File("a", "text");
    KFile& file = Undestroyed(PathOf(path), true);
    const WithoutRecord missing(file);
    char szBuffer[] = "....";
    long long nPosition = 7;
    EXPECT_EQ(LogOf([&] {
                  EXPECT_FALSE(file.IsValid());
                  EXPECT_TRUE(file.Open(PathOf(path), true));
                  EXPECT_TRUE(file.Open());
                  EXPECT_TRUE(file.Read(0, szBuffer, 4));
                  EXPECT_TRUE(file.Write(0, szBuffer, 4));
                  EXPECT_TRUE(file.SetPosition(1));
                  EXPECT_TRUE(file.Close());
                  EXPECT_EQ(file.GetSize(), kNoSize);
                  EXPECT_FALSE(file.Delete());
                  KPath other = PathOf(Directory().Entry("b"));
                  EXPECT_FALSE(file.Rename(other));
                  EXPECT_TRUE(file.GetPosition(nPosition));
              }),
              "");
    EXPECT_STREQ(szBuffer, "....");
    EXPECT_EQ(nPosition, 7);
    EXPECT_EQ(ContentOf(path), "text");
}

TEST_F(KFileTest, EveryOperationChecksForItsRecord) {
    KFile file;
    const WithoutRecord missing(file);
    KPath other;
    char chByte = 'x';
    long long nPosition = 0;
    EXPECT_CHECK_FAILS(file.Close(), "pInfo", "src/api/KFile", "bool KFile::Close()");
    EXPECT_CHECK_FAILS(file.Open(), "pInfo", "src/api/KFile", "bool KFile::Close()");  // It closes first.
    EXPECT_CHECK_FAILS(file.Read(0, &chByte, 1), "pInfo", "src/api/KFile",
                       "bool KFile::Read(long long int, char*, size_t)");
    EXPECT_CHECK_FAILS(file.Write(0, &chByte, 1), "pInfo", "src/api/KFile",
                       "bool KFile::Write(long long int, char*, size_t)");
    EXPECT_CHECK_FAILS(file.SetPosition(0), "pInfo", "src/api/KFile", "bool KFile::SetPosition(long long int)");
    EXPECT_CHECK_FAILS(file.GetPosition(nPosition), "pInfo", "src/api/KFile",
                       "bool KFile::GetPosition(long long int&)");
    EXPECT_CHECK_FAILS(file.GetSize(), "pInfo", "src/api/KFile", "size_t KFile::GetSize()");
    EXPECT_CHECK_FAILS(file.Create(false), "pInfo", "src/api/KFile", "bool KFile::Create(bool)");
    EXPECT_CHECK_FAILS(file.Rename(other), "pInfo", "src/api/KFile", "bool KFile::Rename(KPath&)");
    EXPECT_CHECK_FAILS(file.Delete(), "pInfo", "src/api/KFile", "bool KFile::Delete()");
}

TEST_F(KFileTest, AFileThatIsGoneHasNoRecord) {
    EXPECT_EQ(support::PointerLeftBy<KFile>(sizeof(void*)), nullptr);
}

// -------------------------------------------------------------------------------------------- Files by their own path

TEST_F(KFileTest, CreatesItsOwnFileOnlyWhileClosed) {
    const std::string path = Directory().Entry("a");
    KFile file(PathOf(path), false);
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(file.Create(false)); }), "");
    EXPECT_TRUE(std::filesystem::exists(path));
    EXPECT_FALSE(file.IsValid());
    Directory().File("a", "text");
    ASSERT_TRUE(file.Open());
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.Create(true)); }), "");
    EXPECT_EQ(ContentOf(path), "text");
    EXPECT_TRUE(file.Close());
    EXPECT_TRUE(file.Create(true));
    EXPECT_EQ(ContentOf(path), "");
}

TEST_F(KFileTest, RenamesItselfOnlyWhileOpenAndKeepsItsPath) {
    const std::string from = Directory().File("a", "text");
    const std::string to = Directory().Entry("b");
    KPath target = PathOf(to);
    KFile file(PathOf(from), false);
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.Rename(target)); }), "");
    EXPECT_TRUE(std::filesystem::exists(from));
    ASSERT_TRUE(file.Open());
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(file.Rename(target)); }), "Log: ****File Close\n");
    EXPECT_FALSE(file.IsValid());
    EXPECT_FALSE(std::filesystem::exists(from));
    EXPECT_EQ(ContentOf(to), "text");
    EXPECT_EQ(TextOf(file.GetPath()), from);
}

TEST_F(KFileTest, DeletesItselfOnlyWhileOpen) {
    const std::string path = Directory().File("a", "text");
    KFile file(PathOf(path), false);
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(file.Delete()); }), "");
    EXPECT_TRUE(std::filesystem::exists(path));
    ASSERT_TRUE(file.Open());
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(file.Delete()); }), "Log: ****File Close\n");
    EXPECT_FALSE(file.IsValid());
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST_F(KFileTest, WhetherAStreamIsOpenIsAskedUnderTheLock) {
    const KPath path = PathOf(Directory().Entry("a"));
    KPath other = PathOf(Directory().Entry("b"));
    KFile open(path, true);
    ASSERT_TRUE(open.Open());
    KFile closed(path, true);
    struct Case {
        const char* pszName;
        std::function<bool()> refuse;
    };
    const Case cases[] = {
        {"creating", [&] { return !open.Create(false); }},
        {"renaming", [&] { return !closed.Rename(other); }},
        {"deleting", [&] { return !closed.Delete(); }},
    };
    for (const Case& each : cases) {
        const support::ScopedCalls calls;
        EXPECT_TRUE(each.refuse()) << each.pszName;
        EXPECT_EQ(calls.Names(), (std::vector<std::string>{support::kLock, support::kUnlock})) << each.pszName;
    }
}

// --------------------------------------------------------------------------------------------------- Files by any path

TEST_F(KFileTest, CreatesOrEmptiesAFile) {
    for (const bool fgWriteOnly : {false, true}) {
        const std::string path = Directory().Entry("a");
        KPath target = PathOf(path);
        std::filesystem::remove(path);
        EXPECT_EQ(LogOf([&] { EXPECT_TRUE(KFile::Create(target, fgWriteOnly)); }), "");
        EXPECT_TRUE(std::filesystem::is_regular_file(path));
        Directory().File("a", "text");
        EXPECT_TRUE(KFile::Create(target, fgWriteOnly));
        EXPECT_EQ(ContentOf(path), "");
        EXPECT_EQ(DescriptorOf(path), -1) << "it is closed at once";
    }
}

TEST_F(KFileTest, CreatesAFileThatMayOnlyBeWrittenIfAskedTo) {
    const std::string path = Directory().File("a", "text");
    ASSERT_EQ(chmod(Directory().Path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(path.c_str(), 0222), 0);
    KPath target = PathOf(path);
    const ScopedOrdinaryUser user;
    if (!user.Held()) {
        GTEST_SKIP() << "the superuser's rights cannot be dropped";
    }
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(KFile::Create(target, false)); }), ErrorLine("File Create Error", path));
    EXPECT_TRUE(KFile::Create(target, true));
}

TEST_F(KFileTest, AFileThatCannotBeCreatedIsLogged) {
    const std::string path = Directory().Entry("missing/a");
    KPath target = PathOf(path);
    for (const bool fgWriteOnly : {false, true}) {
        EXPECT_EQ(LogOf([&] { EXPECT_FALSE(KFile::Create(target, fgWriteOnly)); }),
                  ErrorLine("File Create Error", path));
    }
}

TEST_F(KFileTest, RenamesAFileOverAnother) {
    const std::string from = Directory().File("a", "new");
    const std::string to = Directory().File("b", "old");
    KPath source = PathOf(from);
    KPath target = PathOf(to);
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(KFile::Rename(source, target)); }), "");
    EXPECT_FALSE(std::filesystem::exists(from));
    EXPECT_EQ(ContentOf(to), "new");
}

TEST_F(KFileTest, RenamesAPathToItself) {
    const std::string path = Directory().File("a", "text");
    KPath both = PathOf(path);
    EXPECT_TRUE(KFile::Rename(both, both));
    EXPECT_EQ(ContentOf(path), "text");
}

TEST_F(KFileTest, AFailedRenameIsLoggedWithTheReasonsNumber) {
    const std::string from = Directory().Entry("missing");
    const std::string to = Directory().Entry("b");
    KPath source = PathOf(from);
    KPath target = PathOf(to);
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(KFile::Rename(source, target)); }),
              "Error****: File ReName Error[" + from + "] ot [" + to + "] 2\n\n");
}

TEST_F(KFileTest, DeletesAFileOrAnEmptyDirectory) {
    std::filesystem::create_directory(Directory().Entry("sub"));
    const std::string file = Directory().File("sub/a", "text");
    KPath path = PathOf(file);
    KPath directory = PathOf(Directory().Entry("sub"));
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(KFile::Delete(directory)); }),
              ErrorLine("File Delete Error", Directory().Entry("sub")));
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(KFile::Delete(path)); }), "");
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(KFile::Delete(path)); }), ErrorLine("File Delete Error", file));
    EXPECT_EQ(LogOf([&] { EXPECT_TRUE(KFile::Delete(directory)); }), "");
}

TEST_F(KFileTest, MessagesQuoteThePathAsItIsStored) {
    KPath path;
    path.SetPath(KString("C:\\no\\such"));
    path.SetType(KPath::TYPE_DIRECTORY);
    EXPECT_EQ(LogOf([&] { EXPECT_FALSE(KFile::Delete(path)); }), ErrorLine("File Delete Error", "C:\\no\\such"));
}

// ------------------------------------------------------------------------------------------------------- Permissions

namespace {

struct PermissionCase {
    mode_t nBits;  ///< 4 to read, 2 to write, 1 to execute.
    bool fgWrite;
    bool fgRead;
    KFile::FileCanHandle eExpected;
};

constexpr PermissionCase kPermissionCases[] = {
    {0, false, false, KFile::FILE_CAN_HANDLE},   {0, true, false, KFile::FILE_NOT_PERMITTED},
    {0, false, true, KFile::FILE_NOT_PERMITTED}, {1, false, true, KFile::FILE_NOT_PERMITTED},
    {2, false, false, KFile::FILE_CAN_HANDLE},   {2, true, false, KFile::FILE_CAN_HANDLE},
    {2, false, true, KFile::FILE_NOT_PERMITTED}, {2, true, true, KFile::FILE_NOT_PERMITTED},
    {4, false, true, KFile::FILE_CAN_HANDLE},    {4, true, false, KFile::FILE_NOT_PERMITTED},
    {4, true, true, KFile::FILE_NOT_PERMITTED},  {6, true, true, KFile::FILE_CAN_HANDLE},
    {7, true, true, KFile::FILE_CAN_HANDLE}};

/// Expects of a file what the table says for the class whose bits stand @p nShift from the right. The bits of the other
/// two classes are set the other way round, so that no other class can give the same results.
void ExpectPermissions(const std::string& path, int nShift) {
    constexpr mode_t kEachClass = 0111;
    constexpr mode_t kAllBits = 0777;
    KPath target = PathOf(path);
    for (const PermissionCase& test : kPermissionCases) {
        const mode_t nOthers = (kAllBits ^ (test.nBits * kEachClass)) & ~(static_cast<mode_t>(7) << nShift);
        const mode_t nMode = nOthers | (test.nBits << nShift);
        ASSERT_EQ(chmod(path.c_str(), nMode), 0);
        EXPECT_EQ(LogOf([&] { EXPECT_EQ(KFile::CanHandle(target, test.fgWrite, test.fgRead), test.eExpected); }), "")
            << std::oct << nMode << " write " << test.fgWrite << " read " << test.fgRead;
    }
}

}  // namespace

TEST_F(KFileTest, PermissionResultsAreTheNumbers1To3) {
    EXPECT_EQ(KFile::FILE_CANNOT_REACH, 1);
    EXPECT_EQ(KFile::FILE_NOT_PERMITTED, 2);
    EXPECT_EQ(KFile::FILE_CAN_HANDLE, 3);
}

TEST_F(KFileTest, TheOwnersBitsDecideForTheOwner) {
    ExpectPermissions(Directory().File("a", "text"), 6);
}

TEST_F(KFileTest, TheGroupsBitsDecideForOthersInTheGroup) {
    const std::string path = Directory().File("a", "text");
    if (chown(path.c_str(), kSomeUser, getgid()) != 0) {
        GTEST_SKIP() << "only the superuser can give a file away";
    }
    ExpectPermissions(path, 3);
}

TEST_F(KFileTest, TheBitsOfOthersDecideForTheRest) {
    const std::string path = Directory().File("a", "text");
    if (chown(path.c_str(), kSomeUser, kSomeGroup) != 0) {
        GTEST_SKIP() << "only the superuser can give a file away";
    }
    ExpectPermissions(path, 0);
}

TEST_F(KFileTest, TheRealUserDecidesNotTheEffectiveOne) {
    const std::string path = Directory().File("a", "text");
    ASSERT_EQ(chmod(Directory().Path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(path.c_str(), 0400), 0);
    KPath target = PathOf(path);
    const ScopedOrdinaryUser user;
    if (getuid() == geteuid()) {
        GTEST_SKIP() << "the effective user cannot be changed";
    }
    EXPECT_EQ(KFile::CanHandle(target, false, true), KFile::FILE_CAN_HANDLE);
}

TEST_F(KFileTest, AFileThatIsNotThereCannotBeReached) {
    const std::string path = Directory().Entry("missing");
    KPath target = PathOf(path);
    EXPECT_EQ(LogOf([&] { EXPECT_EQ(KFile::CanHandle(target, false, false), KFile::FILE_CANNOT_REACH); }),
              ErrorLine("File CanHandle Error", path));
}

TEST_F(KFileTest, ALinkIsFollowedForItsPermissions) {
    const std::string path = Directory().File("a", "text");
    ASSERT_EQ(chmod(path.c_str(), 0400), 0);
    std::filesystem::create_symlink(path, Directory().Entry("link"));
    std::filesystem::create_symlink("nowhere", Directory().Entry("dangling"));
    KPath link = PathOf(Directory().Entry("link"));
    KPath dangling = PathOf(Directory().Entry("dangling"));
    EXPECT_EQ(KFile::CanHandle(link, true, false), KFile::FILE_NOT_PERMITTED);
    EXPECT_EQ(KFile::CanHandle(link, false, true), KFile::FILE_CAN_HANDLE);
    EXPECT_EQ(KFile::CanHandle(dangling, false, false), KFile::FILE_CANNOT_REACH);
}

// --------------------------------------------------------------------------------------------------- Temporary names

namespace {

constexpr const char* kTemporaryPattern = "/Kalvoren[A-Za-z0-9]{6}$";

}  // namespace

TEST_F(KFileTest, MakesATemporaryNameThatIsNotTaken) {
    const ScopedEnvironment temporary("TMPDIR", Directory().Path().c_str());
    KPath path("before");
    path.SetType(KPath::TYPE_DIRECTORY);
    EXPECT_TRUE(KFile::CreateTempFileName(path));
    EXPECT_THAT(TextOf(path), testing::ContainsRegex("^" + Directory().Path() + kTemporaryPattern));
    EXPECT_EQ(path.GetType(), KPath::TYPE_NONE);
    EXPECT_FALSE(std::filesystem::exists(TextOf(path))) << "nothing is created";
    KPath another;
    EXPECT_TRUE(KFile::CreateTempFileName(another));
    EXPECT_NE(TextOf(another), TextOf(path));
}

TEST_F(KFileTest, TemporaryNamesLieInTmpByDefault) {
    for (const char* const pszNone : {static_cast<const char*>(nullptr), ""}) {
        const ScopedEnvironment temporary("TMPDIR", pszNone);
        KPath path;
        EXPECT_TRUE(KFile::CreateTempFileName(path));
        EXPECT_THAT(TextOf(path), testing::ContainsRegex(std::string("^/tmp") + kTemporaryPattern));
    }
}

TEST_F(KFileTest, ATemporaryNameThatLibcCannotMakeIsEmpty) {
    const ScopedEnvironment temporary("TMPDIR", Directory().File("a", "not a directory").c_str());
    KPath path("before");
    EXPECT_TRUE(KFile::CreateTempFileName(path));
    EXPECT_EQ(TextOf(path), "");
}

TEST_F(KFileTest, ATemporaryNameThatIsTooLongIsNotMade) {
    constexpr std::size_t kLongest = 2046 - (sizeof("/KalvorenXXXXXX") - 1);
    const std::string directory = DirectoryOfLength(kLongest);
    KPath path("before");
    {
        const ScopedEnvironment temporary("TMPDIR", (directory + "/").c_str());
        EXPECT_FALSE(KFile::CreateTempFileName(path));
        EXPECT_EQ(TextOf(path), "before");
    }
    // The longest that is made can be used with the checks on.
    const ScopedEnvironment temporary("TMPDIR", directory.c_str());
    EXPECT_TRUE(KFile::CreateTempFileName(path));
    EXPECT_EQ(TextOf(path).size(), 2046u);
    EXPECT_TRUE(KFile::Create(path, false));
    EXPECT_TRUE(KFile::Delete(path));
}

TEST_F(KFileTest, ALinkThatTookATemporaryNameIsFollowedAndWhatItLeadsToIsEmptiedOrMade) {
    const ScopedEnvironment temporary("TMPDIR", Directory().Path().c_str());
    const std::vector<std::function<bool(KPath&)>> ways = {
        [](KPath& path) { return KFile::Create(path, false); },
        [](KPath& path) { return KFile::Create(path, true); },
        [](KPath& path) { return KFile(path, true).Create(false); },
        [](KPath& path) {
            KFile file;
            return file.Open(path, true) && file.Close();
        },
    };
    for (std::size_t i = 0; i < ways.size(); ++i) {
        for (const bool fgThere : {true, false}) {
            SCOPED_TRACE(testing::Message() << "way " << i << (fgThere ? ", to a file" : ", to nowhere"));
            const std::string target = Directory().Entry("another's");
            std::filesystem::remove(target);
            if (fgThere) {
                Directory().File("another's", "text");
            }
            KPath path;
            ASSERT_TRUE(KFile::CreateTempFileName(path));
            std::filesystem::create_symlink(target, TextOf(path));
            EXPECT_TRUE(ways[i](path));
            EXPECT_TRUE(std::filesystem::is_symlink(TextOf(path)));
            EXPECT_TRUE(std::filesystem::is_regular_file(target));
            EXPECT_EQ(ContentOf(target), "");
            // What to do instead.
            EXPECT_EQ(open(TextOf(path).c_str(), O_RDWR | O_CREAT | O_EXCL, 0600), -1);
            EXPECT_EQ(errno, EEXIST);
        }
    }
}

// ----------------------------------------------------------------------------------------------------------- Threads

TEST_F(KFileTest, BlocksAppendedByTwoThreadsAreAllThereAndWhole) {
    constexpr int kBlocks = 500;
    constexpr std::size_t kBlockSize = 64;
    const ScopedLevel level(3);
    const std::string path = Directory().Entry("a");
    KFile file;
    ASSERT_TRUE(file.Open(PathOf(path), true));
    const auto append = [&file](char chFill) {
        std::string block(kBlockSize, chFill);
        for (int i = 0; i < kBlocks; ++i) {
            EXPECT_TRUE(file.Write(-1, &block[0], block.size()));
        }
    };
    std::thread other(append, 'b');
    append('a');
    other.join();
    EXPECT_EQ(file.GetSize(), 2 * kBlockSize * kBlocks);
    EXPECT_TRUE(file.Close());
    const std::string content = ContentOf(path);
    for (std::size_t i = 0; i < content.size(); i += kBlockSize) {
        EXPECT_EQ(content.substr(i, kBlockSize), std::string(kBlockSize, content[i]));
    }
}
