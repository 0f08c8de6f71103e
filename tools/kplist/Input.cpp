#include "Input.h"

#include <KAssert.h>
#include <KFile.h>
#include <KPropertyList.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <system_error>
#include <vector>

namespace kplist {

namespace {

/// Turns the library's checks off while files that may be broken are read: a closing tag that closes nothing, or a name
/// that is too long for a path, is something to report and must not end this program.
class ScopedTolerance {
 public:
    ScopedTolerance() : m_fgBefore(KAssert::GetActive()) { KAssert::SetActive(false); }
    ~ScopedTolerance() { KAssert::SetActive(m_fgBefore); }
    ScopedTolerance(const ScopedTolerance&) = delete;
    ScopedTolerance& operator=(const ScopedTolerance&) = delete;

 private:
    bool m_fgBefore;
};

/// Why a file should not be opened; empty when it may be. A pipe would be waited for, and nothing but a regular file
/// tells its size.
std::string WhyNotOpen(const char* pszFile) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(pszFile, error);
    if (error) {
        return error.message();
    }
    if (std::filesystem::is_directory(status)) {
        return std::make_error_code(std::errc::is_a_directory).message();
    }
    return std::filesystem::is_regular_file(status) ? "" : "Not a regular file";
}

/// Reads the open file. False when it cannot be read, or is larger than a KString can be.
bool ReadWhole(KFile& file, std::string& text) {
    const std::size_t nSize = file.GetSize();
    if (nSize >= INT_MAX) {
        return false;
    }
    text.resize(nSize);
    return nSize == 0 || file.Read(0, &text[0], nSize);
}

}  // namespace

bool ReadText(const char* pszFile, std::string& text, std::string& reason) {
    const ScopedTolerance tolerance;
    reason = WhyNotOpen(pszFile);
    if (!reason.empty()) {
        return false;
    }
    KPath path;
    path.SetPath(KString(pszFile));  // The constructors would turn backslashes.
    KFile file;
    errno = 0;
    if (!file.Open(path, false)) {
        reason = errno != 0 ? std::strerror(errno) : "Cannot be opened";
        return false;
    }
    const bool fgRead = ReadWhole(file, text);
    file.Close();
    if (!fgRead) {
        reason = "Cannot be read, or is too large";
    }
    return fgRead;
}

ReadTree ParseText(const std::string& text) {
    const ScopedTolerance tolerance;
    // Destroying a tree leaves half of its nodes, so that each is kept.
    static std::vector<KPropertyList*>& trees = *new std::vector<KPropertyList*>;
    KPropertyList* const pList = new KPropertyList(KString());
    trees.push_back(pList);
    KString rest(text.data(), static_cast<int>(text.size()));
    pList->Parshing(rest, pList->GetRoot());
    const bool fgBlank = std::strspn(rest.GetBuffer(), " \t\r\n") == std::strlen(rest.GetBuffer());
    return {pList->GetRoot(), fgBlank && text.find('\0') == std::string::npos};
}

}  // namespace kplist
