// The parts of the example camera, one by one.

#include <sys/stat.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "Broadcaster.h"
#include "Command.h"
#include "Events.h"
#include "FrameQueue.h"
#include "Json.h"
#include "Motion.h"
#include "Recorder.h"
#include "Request.h"
#include "Settings.h"
#include "Status.h"
#include "TestCard.h"
#include "support/Support.h"
#include "support/Texts.h"

using support::ScopedDirectory;
using support::ScopedLevel;
using support::StderrOf;
using support::TextOf;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr int kNoLines = 3;

// -------------------------------------------------------------------------------------------------------------- Requests

struct RequestCase {
    const char* pszData;
    bool fgGood;
    const char* pszMethod;
    const char* pszPath;
};

TEST(CameraTest, ReadsTheFirstLineOfARequest) {
    const RequestCase cases[] = {
        {"GET / HTTP/1.1\r\n\r\n", true, "GET", "/"},
        {"GET / HTTP/1.0\n\n", true, "GET", "/"},
        {"GET /status.json?now=1&then=2 HTTP/1.1\r\nHost: a\r\n\r\n", true, "GET", "/status.json"},
        {"POST /a/b HTTP/1.1\r\n", true, "POST", "/a/b"},
        {"GET /? HTTP/1.1\r\n", true, "GET", "/"},
        {"", false, "", ""},
        {"\n", false, "", ""},
        {"\r\n\r\n", false, "", ""},
        {"GET", false, "", ""},
        {"GET /\r\n", false, "", ""},
        {"GET  HTTP/1.1\r\n", false, "", ""},
        {"GET / HTTP/1.1", false, "", ""},
        {"GET / HTTP/2\r\n", false, "", ""},
        {"GET / http/1.1\r\n", false, "", ""},
        {"get / HTTP/1.1\r\n", false, "", ""},
        {" / HTTP/1.1\r\n", false, "", ""},
        {"GET x HTTP/1.1\r\n", false, "", ""},
        {"GET http://a/ HTTP/1.1\r\n", false, "", ""},
        {"GET /a b HTTP/1.1\r\n", false, "", ""},
        {"GET /a\tb HTTP/1.1\r\n", false, "", ""},
        {"GET /\xC3\xA4 HTTP/1.1\r\n", false, "", ""},
        {"\x16\x03\x01\x02 \r\n", false, "", ""},
    };
    for (const RequestCase& c : cases) {
        SCOPED_TRACE(c.pszData);
        camera::Request request = {"before", "before"};
        EXPECT_EQ(camera::ParseRequest(c.pszData, std::strlen(c.pszData), request), c.fgGood);
        EXPECT_EQ(TextOf(request.method), c.fgGood ? c.pszMethod : "before");
        EXPECT_EQ(TextOf(request.path), c.fgGood ? c.pszPath : "before");
    }
}

TEST(CameraTest, TakesAnyBytesForARequestWithoutHarm) {
    // Each block is on the heap with its exact size, so that a sanitizer sees a step beyond.
    unsigned int nNext = 1;
    int nGood = 0;
    for (int i = 0; i < 20000; ++i) {
        std::string text = "GET /path HTTP/1.1\r\nHost: x\r\n\r\n";
        for (int nChanges = i % 4; nChanges > 0; --nChanges) {
            nNext = nNext * 1103515245U + 12345U;
            text[(nNext >> 16) % text.size()] = static_cast<char>(nNext >> 8);
        }
        text.resize((nNext >> 4) % (text.size() + 1));
        const std::vector<char> block(text.begin(), text.end());
        camera::Request request;
        nGood += camera::ParseRequest(block.data(), block.size(), request) ? 1 : 0;
        EXPECT_LE(camera::EndOfHead(block.data(), block.size()), block.size());
    }
    EXPECT_GT(nGood, 100);
    EXPECT_LT(nGood, 19000);
}

TEST(CameraTest, FindsTheEndOfAHeadBehindTheFirstEmptyLine) {
    const struct {
        const char* pszData;
        std::size_t nEnd;
    } cases[] = {{"", 0},
                 {"GET / HTTP/1.1\r\n", 0},
                 {"GET / HTTP/1.1\r\n\r", 0},
                 {"a\r\n\r\nbody\r\n\r\n", 5},
                 {"a\n\nb\r\n\r\n", 3},
                 {"a\r\n\r\nb\n\n", 5}};
    for (const auto& c : cases) {
        EXPECT_EQ(camera::EndOfHead(c.pszData, std::strlen(c.pszData)), c.nEnd) << c.pszData;
    }
}

// -------------------------------------------------------------------------------------------------------------- Commands

TEST(CameraTest, ReadsCommands) {
    const struct {
        const char* pszText;
        camera::Command::Verb eVerb;
        int nLevel;
    } cases[] = {{"snapshot", camera::Command::SNAPSHOT, 0},
                 {"rotate", camera::Command::ROTATE, 0},
                 {"loglevel 0", camera::Command::LOG_LEVEL, 0},
                 {"loglevel 3", camera::Command::LOG_LEVEL, 3},
                 {"stop", camera::Command::STOP, 0}};
    for (const auto& c : cases) {
        camera::Command command = {camera::Command::STOP, -1};
        EXPECT_TRUE(camera::ParseCommand(c.pszText, command)) << c.pszText;
        EXPECT_EQ(command.eVerb, c.eVerb) << c.pszText;
        EXPECT_EQ(command.nLevel, c.nLevel) << c.pszText;
    }
    for (const char* pszText : {"", "Stop", "stop ", " stop", "loglevel", "loglevel 4", "loglevel -1", "loglevel  1"}) {
        camera::Command command = {camera::Command::STOP, -1};
        EXPECT_FALSE(camera::ParseCommand(pszText, command)) << pszText;
    }
}

TEST(CameraTest, ARecordHoldsATextAndIsReadWithoutANul) {
    EXPECT_EQ(TextOf(camera::TextOf(camera::RecordOf("rotate"))), "rotate");
    EXPECT_EQ(TextOf(camera::TextOf(camera::RecordOf(""))), "");
    const std::string longText(1000, 'x');
    EXPECT_EQ(TextOf(camera::TextOf(camera::RecordOf(longText.c_str()))), std::string(519, 'x'));
    KIPC::IPCData record;
    std::memset(record.bytes, 'y', sizeof(record.bytes));
    EXPECT_EQ(TextOf(camera::TextOf(record)), std::string(520, 'y'));
}

TEST(CameraTest, QuotesTextsForJson) {
    EXPECT_EQ(TextOf(camera::Quoted("")), "\"\"");
    EXPECT_EQ(TextOf(camera::Quoted("North gate")), "\"North gate\"");
    EXPECT_EQ(TextOf(camera::Quoted("a\"b\\c\n\x01")), "\"a\\\"b\\\\c\\u000a\\u0001\"");
    EXPECT_EQ(TextOf(camera::Quoted("T\xC3\xBCr")), "\"T\xC3\xBCr\"");
}

// -------------------------------------------------------------------------------------------------------------- Settings

std::string Plist(const std::string& content) {
    return "<plist version=\"1.0\">\n<dict>\n" + content + "</dict>\n</plist>\n";
}

std::string Section(const std::string& name, const std::string& content) {
    return "\t<key>" + name + "</key>\n\t<dict>\n" + content + "\t</dict>\n";
}

std::string Entry(const std::string& key, const std::string& value) {
    return "\t\t<key>" + key + "</key>\n\t\t" + value + "\n";
}

std::vector<std::string> FaultsIn(const std::string& text, camera::Settings& settings) {
    const ScopedDirectory directory;
    const ScopedLevel level(kNoLines);
    const std::string file = directory.File("camera.plist", text);
    std::vector<std::string> faults;
    const bool fgRead = camera::ReadSettings(file.c_str(), settings, faults);
    EXPECT_EQ(fgRead, faults.empty());
    for (std::string& fault : faults) {
        EXPECT_EQ(fault.rfind(file, 0), 0U) << fault;
        fault.erase(0, file.size());
    }
    return faults;
}

TEST(CameraTest, ReadsTheConfigurationItComesWith) {
    const ScopedLevel level(kNoLines);
    camera::Settings settings;
    std::vector<std::string> faults;
    EXPECT_TRUE(camera::ReadSettings(KALVOREN_EXAMPLES "/camera/camera.plist", settings, faults));
    EXPECT_THAT(faults, IsEmpty());
    // What stands in the file is what holds without it.
    std::map<std::string, std::string> read;
    camera::VisitSettings(settings, [&](const char* pszKey, const KString& value) { read[pszKey] = TextOf(value); });
    std::map<std::string, std::string> own;
    camera::VisitSettings(camera::Settings(),
                          [&](const char* pszKey, const KString& value) { own[pszKey] = TextOf(value); });
    EXPECT_EQ(read, own);
    EXPECT_EQ(read.size(), 17U);
}

TEST(CameraTest, TakesSettingsFromAFileAndKeepsTheOthers) {
    camera::Settings settings;
    EXPECT_THAT(FaultsIn(Plist(Section("Picture", Entry("Rate", "<integer>10</integer>")) +
                               Section("Http", Entry("LocalOnly", "<true/>") + Entry("Port", "<integer>0</integer>")) +
                               Section("Identity", Entry("Name", "<string>North gate</string>"))),
                         settings),
                IsEmpty());
    EXPECT_EQ(settings.nRate, 10);
    EXPECT_EQ(settings.nPort, 0);
    EXPECT_TRUE(settings.fgLocalOnly);
    EXPECT_EQ(TextOf(settings.name), "North gate");
    EXPECT_EQ(settings.nWidth, 640);
}

TEST(CameraTest, NamesTheKeyOfEveryBadSetting) {
    const struct {
        const char* pszSection;
        const char* pszKey;
        const char* pszValue;
        const char* pszFault;
    } cases[] = {
        {"Http", "Port", "<integer>65536</integer>", ": Http/Port: 65536 is not a number from 0 to 65535"},
        {"Http", "Port", "<integer>99999999999999999999</integer>",
         ": Http/Port: 99999999999999999999 is not a number from 0 to 65535"},
        {"Http", "Port", "<integer>80a</integer>", ": Http/Port: 80a is not a number from 0 to 65535"},
        {"Http", "Port", "<string>80</string>", ": Http/Port: an integer is wanted, not a string"},
        {"Http", "Prot", "<integer>80</integer>", ": Http/Prot: there is no such setting"},
        {"Http", "LocalOnly", "<integer>1</integer>", ": Http/LocalOnly: true or false is wanted, not an integer"},
        {"Http", "Clients", "<integer>0</integer>", ": Http/Clients: 0 is not a number from 1 to 64"},
        {"Http", "Clients", "<integer>65</integer>", ": Http/Clients: 65 is not a number from 1 to 64"},
        {"Picture", "Rate", "<integer>-1</integer>", ": Picture/Rate: -1 is not a number from 1 to 60"},
        {"Encoder", "PlugIn", "<string>libcamera-jpeg.so</string>",
         ": Encoder/PlugIn: \"libcamera-jpeg.so\" is not a bare name, as \"camera-jpeg\" is for libcamera-jpeg.so"},
        {"Encoder", "PlugIn", "<string>plugins/camera-jpeg</string>",
         ": Encoder/PlugIn: \"plugins/camera-jpeg\" is not a bare name, as \"camera-jpeg\" is for libcamera-jpeg.so"},
        {"Control", "Channel", "<integer>1000</integer>", ": Control/Channel: 1000 is not a number from 0 to 999"},
    };
    for (const auto& c : cases) {
        camera::Settings settings;
        EXPECT_THAT(FaultsIn(Plist(Section(c.pszSection, Entry(c.pszKey, c.pszValue))), settings),
                    ElementsAre(c.pszFault));
    }
}

TEST(CameraTest, NamesTheLineWhereTheReaderWouldStop) {
    camera::Settings settings;
    EXPECT_THAT(FaultsIn(Plist("    <key>Http</key>\n"), settings), Contains(HasSubstr(":3:1: ")));
    EXPECT_THAT(FaultsIn("<plist><dict><real>1</real></dict></plist>\n", settings),
                ElementsAre(AllOf(HasSubstr(":1:14: "), HasSubstr("real"))));
}

TEST(CameraTest, NamesAFileThatIsNotThere) {
    camera::Settings settings;
    std::vector<std::string> faults;
    EXPECT_FALSE(camera::ReadSettings("/no/such/camera.plist", settings, faults));
    EXPECT_THAT(faults, ElementsAre("/no/such/camera.plist: No such file or directory"));
}

// -------------------------------------------------------------------------------------------------- Pictures and motion

constexpr int kWidth = 320;
constexpr int kHeight = 180;
constexpr std::size_t kPictureSize = std::size_t{3} * kWidth * kHeight;
constexpr int kRate = 25;
constexpr int kThreshold = 32;

using Picture = std::vector<unsigned char>;

Picture Drawn(unsigned int nFrame, int nSecond = 1000) {
    const camera::TestCard card(kWidth, kHeight, kRate);
    // Bytes behind the picture, which stay as they are.
    Picture picture(kPictureSize + 64, 0xA5);
    card.Draw(nFrame, KTime(nSecond, 0, 0), picture.data());
    for (std::size_t i = kPictureSize; i < picture.size(); ++i) {
        EXPECT_EQ(picture[i], 0xA5);
    }
    picture.resize(kPictureSize);
    return picture;
}

TEST(CameraTest, TheBlockMovesForFourSecondsAndRestsForThree) {
    EXPECT_EQ(camera::TestCard::StepsUntil(0, kRate), 0U);
    EXPECT_EQ(camera::TestCard::StepsUntil(99, kRate), 99U);
    EXPECT_EQ(camera::TestCard::StepsUntil(100, kRate), 100U);
    EXPECT_EQ(camera::TestCard::StepsUntil(174, kRate), 100U);
    EXPECT_EQ(camera::TestCard::StepsUntil(176, kRate), 101U);
}

TEST(CameraTest, TheTestCardDrawsAtAnySizeThatCanBeConfigured) {
    const struct {
        int nWidth;
        int nHeight;
        int nRate;
    } cases[] = {{160, 120, 1}, {160, 1080, 60}, {1920, 120, 25}, {641, 361, 7}};
    for (const auto& c : cases) {
        const camera::TestCard card(c.nWidth, c.nHeight, c.nRate);
        Picture picture(std::size_t{3} * static_cast<std::size_t>(c.nWidth) * static_cast<std::size_t>(c.nHeight));
        for (unsigned int nFrame : {0U, 1U, 99U, 1000U, 4000000000U}) {
            card.Draw(nFrame, KTime(0, 0, 0), picture.data());
        }
        EXPECT_EQ(picture[0], 0xBF);
    }
}

TEST(CameraTest, SeesNoMotionInTheFirstPictureNorInTheSameOneAgain) {
    camera::Motion motion(kWidth, kHeight, kThreshold);
    EXPECT_EQ(motion.Look(Drawn(0).data()), 0);
    EXPECT_EQ(motion.Look(Drawn(0).data()), 0);
}

TEST(CameraTest, SeesTheBlockMoveAndNotTheClock) {
    camera::Motion motion(kWidth, kHeight, kThreshold);
    EXPECT_EQ(motion.Look(Drawn(0).data()), 0);
    EXPECT_GT(motion.Look(Drawn(15).data()), 0);
    EXPECT_GT(motion.Look(Drawn(30).data()), 0);
    // From here the block rests, while the clock and the number go on.
    motion.Look(Drawn(100).data());
    for (unsigned int nFrame = 101; nFrame < 175; nFrame += 5) {
        EXPECT_EQ(motion.Look(Drawn(nFrame, 1000 + static_cast<int>(nFrame)).data()), 0) << nFrame;
    }
}

TEST(CameraTest, CountsTheCellsThatChange) {
    camera::Motion motion(kWidth, kHeight, kThreshold);
    Picture picture(kPictureSize, 0);
    motion.Look(picture.data());
    // One cell, exactly.
    constexpr std::size_t kCellWidth = kWidth / camera::Motion::kColumns;
    for (std::size_t nY = 0; nY < kHeight / camera::Motion::kRows; ++nY) {
        std::memset(&picture[nY * kWidth * 3], 255, kCellWidth * 3);
    }
    EXPECT_EQ(motion.Look(picture.data()), 1);
    std::fill(picture.begin(), picture.end(), static_cast<unsigned char>(128));
    EXPECT_EQ(motion.Look(picture.data()), camera::Motion::kColumns * camera::Motion::kRows);
}

// ----------------------------------------------------------------------------------------------------------- Broadcaster

camera::JpegPointer Numbered(unsigned int nNumber) {
    return std::make_shared<const camera::Jpeg>(camera::Jpeg{nNumber, {}});
}

TEST(CameraTest, ASlowClientGetsTheNewestPictureAndLosesThoseBetween) {
    camera::Broadcaster broadcaster;
    EXPECT_EQ(broadcaster.Latest(), nullptr);
    EXPECT_EQ(broadcaster.WaitForNewer(0, 0), nullptr);
    for (unsigned int nNumber = 1; nNumber <= 5; ++nNumber) {
        broadcaster.Publish(Numbered(nNumber));
    }
    EXPECT_EQ(broadcaster.WaitForNewer(1, 0)->nNumber, 5U);
    EXPECT_EQ(broadcaster.WaitForNewer(5, 0), nullptr);
}

TEST(CameraTest, AWaitingClientGetsThePictureThatIsPublished) {
    camera::Broadcaster broadcaster;
    std::thread publisher([&] { broadcaster.Publish(Numbered(1)); });
    EXPECT_EQ(broadcaster.WaitForNewer(0, 60000)->nNumber, 1U);
    publisher.join();
}

// ----------------------------------------------------------------------------------------------------------- FrameQueue

TEST(CameraTest, AQueueHasBuffersOfTheSizeAskedForAndCountsWhatWaits) {
    camera::FrameQueue queue(42, 3, 5000);
    KDynamicDataBuffer* buffers[3];
    for (KDynamicDataBuffer*& pBuffer : buffers) {
        pBuffer = queue.BeginWrite();
        ASSERT_NE(pBuffer, nullptr);
        EXPECT_GE(pBuffer->GetCapacity(), 5000U);
    }
    EXPECT_EQ(queue.BeginWrite(), nullptr);
    EXPECT_EQ(queue.GetDepth(), 0);
    for (KDynamicDataBuffer* pBuffer : buffers) {
        queue.EndWrite(pBuffer);
    }
    EXPECT_EQ(queue.GetDepth(), 3);
    for (KDynamicDataBuffer* pBuffer : buffers) {
        EXPECT_EQ(queue.BeginRead(), pBuffer);
        queue.EndRead(pBuffer);
    }
    EXPECT_EQ(queue.BeginRead(), nullptr);
    EXPECT_EQ(queue.GetDepth(), 0);
}

// -------------------------------------------------------------------------------------------------------------- Recorder

constexpr int kLongSegment = 3600;
constexpr long long kLimit = 256LL * 1024;

std::vector<unsigned char> Bytes(std::size_t nSize) {
    return std::vector<unsigned char>(nSize, 'j');
}

/// The sizes of the files in a directory by name, in the order of their names.
std::map<std::string, std::uintmax_t> FilesIn(const std::string& directory) {
    std::map<std::string, std::uintmax_t> files;
    for (const auto& entry : std::filesystem::directory_iterator(directory)) {
        files[entry.path().filename().string()] = entry.file_size();
    }
    return files;
}

std::uintmax_t SizeOf(const std::string& directory) {
    std::uintmax_t nSize = 0;
    for (const auto& file : FilesIn(directory)) {
        nSize += file.second;
    }
    return nSize;
}

bool Write(camera::Recorder& recorder, std::size_t nSize) {
    const std::vector<unsigned char> bytes = Bytes(nSize);
    return recorder.Write(bytes.data(), static_cast<unsigned int>(nSize));
}

TEST(CameraTest, RecordsIntoOneSegmentUntilItIsRotated) {
    const ScopedLevel level(kNoLines);
    const ScopedDirectory directory;
    const std::string place = directory.Entry("new/place");
    camera::Recorder recorder(place.c_str(), kLongSegment, kLimit);
    EXPECT_TRUE(recorder.Open());
    EXPECT_FALSE(recorder.Rotate());
    EXPECT_TRUE(Write(recorder, 100));
    EXPECT_TRUE(Write(recorder, 50));
    EXPECT_TRUE(recorder.Rotate());
    EXPECT_EQ(recorder.GetSegmentCount(), 1);
    EXPECT_TRUE(Write(recorder, 7));
    EXPECT_TRUE(recorder.Rotate());
    const auto files = FilesIn(place);
    ASSERT_EQ(files.size(), 2U);
    EXPECT_EQ(files.begin()->second, 150U);
    EXPECT_EQ(files.rbegin()->second, 7U);
    EXPECT_EQ(recorder.GetSize(), 157);
    for (const auto& file : files) {
        EXPECT_THAT(file.first, testing::MatchesRegex("[0-9]{20}\\.mjpeg"));
    }
}

TEST(CameraTest, KeepsTheDirectoryBelowItsSizeAtEveryMoment) {
    const ScopedLevel level(kNoLines);
    const ScopedDirectory directory;
    directory.File("notes.txt", "not ours");
    camera::Recorder recorder(directory.Path().c_str(), kLongSegment, kLimit);
    for (std::size_t i = 0; i < 300; ++i) {
        EXPECT_TRUE(Write(recorder, 1000 + i * 97 % 9000));
        if (i % 50 == 20) {
            const std::vector<unsigned char> bytes = Bytes(2000);
            EXPECT_GT(recorder.Save(bytes.data(), 2000).Length(), 0);
        }
        EXPECT_LE(recorder.GetSize(), kLimit);
    }
    recorder.Rotate();
    EXPECT_EQ(SizeOf(directory.Path()), static_cast<std::uintmax_t>(recorder.GetSize()) + 8);
    EXPECT_GT(recorder.GetSize(), kLimit / 2);
    EXPECT_EQ(FilesIn(directory.Path()).count("notes.txt"), 1U);
}

TEST(CameraTest, CountsWhatIsThereAndDeletesTheOldestFirst) {
    const ScopedLevel level(kNoLines);
    const ScopedDirectory directory;
    const std::string content(std::size_t{100} * 1024, 'x');
    directory.File("20200101000000000000.mjpeg", content);
    directory.File("20200102000000000000.jpg", content);
    directory.File("2020010300000000000.mjpeg", content);  // one digit short: not ours
    camera::Recorder recorder(directory.Path().c_str(), kLongSegment, kLimit);
    EXPECT_TRUE(recorder.Open());
    EXPECT_EQ(recorder.GetSize(), 200 * 1024);
    EXPECT_TRUE(Write(recorder, std::size_t{60} * 1024));
    const auto files = FilesIn(directory.Path());
    EXPECT_EQ(files.count("20200101000000000000.mjpeg"), 0U);
    EXPECT_EQ(files.count("20200102000000000000.jpg"), 1U);
    EXPECT_EQ(files.count("2020010300000000000.mjpeg"), 1U);
}

/// Expects that a recorder is paused, and that it said so once, with @p what.
void ExpectPause(const camera::Recorder& recorder, const std::string& log, const std::string& what) {
    EXPECT_TRUE(recorder.IsPaused());
    EXPECT_THAT(log, HasSubstr("Error****: recording is paused: directory " + what + "\n"));
    EXPECT_EQ(log.find("paused"), log.rfind("paused"));
}

TEST(CameraTest, APictureThatIsLargerThanTheDirectoryMayBePausesTheRecordingAndTakesNoFileAway) {
    const ScopedLevel quiet(kNoLines);
    const ScopedDirectory directory;
    camera::Recorder recorder(directory.Path().c_str(), kLongSegment, 1000);
    const std::string log = StderrOf([&] {
        const ScopedLevel level(2);
        EXPECT_TRUE(Write(recorder, 900));
        EXPECT_FALSE(Write(recorder, 1001));
        EXPECT_FALSE(Write(recorder, 1001));
    });
    ExpectPause(recorder, log, directory.Path() + " is too small for one picture");
    EXPECT_EQ(SizeOf(directory.Path()), 900U);
}

TEST(CameraTest, ASavedPictureThatIsLargerThanTheDirectoryMayBeTakesNoFileAway) {
    const ScopedLevel level(kNoLines);
    const ScopedDirectory directory;
    camera::Recorder recorder(directory.Path().c_str(), kLongSegment, 1000);
    EXPECT_TRUE(Write(recorder, 900));
    const std::vector<unsigned char> bytes = Bytes(1001);
    EXPECT_EQ(recorder.Save(bytes.data(), 1001).Length(), 0);
    EXPECT_TRUE(recorder.IsPaused());
    EXPECT_EQ(SizeOf(directory.Path()), 900U);
}

TEST(CameraTest, PausesWhereAnOldFileCannotBeDeleted) {
    const ScopedLevel quiet(kNoLines);
    const ScopedDirectory directory;
    const std::string oldest = directory.File("20200101000000000000.mjpeg", std::string(800, 'x'));
    camera::Recorder recorder(directory.Path().c_str(), kLongSegment, 1000);
    EXPECT_TRUE(recorder.Open());
    // A directory that is not empty stays, whoever deletes it.
    std::filesystem::remove(oldest);
    std::filesystem::create_directories(oldest + "/below");
    const std::string log = StderrOf([&] {
        const ScopedLevel level(2);
        EXPECT_FALSE(Write(recorder, 300));
        EXPECT_FALSE(Write(recorder, 300));
    });
    ExpectPause(recorder, log, directory.Path() + " cannot be kept below its size");
}

TEST(CameraTest, GoesOnWhereAnOldFileIsGoneAlready) {
    const ScopedLevel level(kNoLines);
    const ScopedDirectory directory;
    const std::string oldest = directory.File("20200101000000000000.mjpeg", std::string(800, 'x'));
    camera::Recorder recorder(directory.Path().c_str(), kLongSegment, 1000);
    EXPECT_TRUE(recorder.Open());
    std::filesystem::remove(oldest);
    EXPECT_TRUE(Write(recorder, 300));
    EXPECT_EQ(recorder.GetSize(), 300);
}

TEST(CameraTest, DoesNotCountWhatIsNoFile) {
    const ScopedLevel level(kNoLines);
    const ScopedDirectory directory;
    ASSERT_EQ(mkfifo(directory.Entry("20200101000000000000.mjpeg").c_str(), 0600), 0);
    std::filesystem::create_directory(directory.Entry("20200102000000000000.mjpeg"));
    camera::Recorder recorder(directory.Path().c_str(), kLongSegment, kLimit);
    EXPECT_TRUE(recorder.Open());
    EXPECT_EQ(recorder.GetSize(), 0);
}

TEST(CameraTest, SaysOnceThatItCannotRecord) {
    const ScopedDirectory directory;
    const std::string place = directory.File("file", "") + "/below";
    const std::string log = StderrOf([&] {
        const ScopedLevel level(2);
        camera::Recorder recorder(place.c_str(), kLongSegment, kLimit);
        EXPECT_FALSE(recorder.Open());
        for (int i = 0; i < 10; ++i) {
            EXPECT_FALSE(Write(recorder, 100));
        }
        EXPECT_TRUE(recorder.IsPaused());
    });
    EXPECT_THAT(log, HasSubstr("Error****: recording is paused: directory " + place + " cannot be made\n"));
    EXPECT_EQ(log.find("paused"), log.rfind("paused"));
}

// ---------------------------------------------------------------------------------------------------------------- Events

TEST(CameraTest, RemembersTheLastEventsTheNewestFirst) {
    const ScopedLevel level(kNoLines);
    camera::Announce(camera::event::kClientJoined, "nobody hears this");
    camera::EventLog events;
    EXPECT_TRUE(events.Last().empty());
    for (int i = 1; i <= 30; ++i) {
        camera::Announce(camera::event::kSegmentClosed, std::to_string(i).c_str());
    }
    const auto last = events.Last();
    ASSERT_EQ(last.size(), camera::EventLog::kRemembered);
    EXPECT_EQ(last.front().nNumber, 30U);
    EXPECT_EQ(TextOf(last.front().name), "segment.closed");
    EXPECT_EQ(TextOf(last.front().text), "30");
    EXPECT_EQ(TextOf(last.back().text), "7");
}

}  // namespace
