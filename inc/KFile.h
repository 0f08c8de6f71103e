/// @file
/// The file.
#ifndef KALVOREN_KFILE_H
#define KALVOREN_KFILE_H

#include <cstddef>

#include "KPath.h"
#include "KThread.h"
#include "KTypes.h"

/// One libc stream on a path, read and written in whole blocks at given positions.
///
/// There are two ways to open: for reading ("r"; the file must exist) and for writing ("w+"; it is created, or
/// @b emptied). A file opened for writing always starts empty.
///
/// Failures are reported as false, with one line in the error log that names the path; a failed operation leaves the
/// object as it was, except that a failed close still forgets the stream, and that a failed Open() has closed the file that
/// was open and taken the new path. A directory opens for reading and has an
/// absurd size: look at IsValid() and at the result of GetSize() before you allocate by it.
///
/// @b The @b destructor @b does @b not @b close. A stream that is still open then is never closed by the library: call
/// Close().
///
/// Operations that need the file record check "pInfo"; Read(), Write() and GetPosition() also check "pInfo->mHandle",
/// so that with the checks on they end the process on a closed file. With the checks off, a missing record makes
/// Read(), Write(), SetPosition(), GetPosition(), Close() and Open() true with nothing done, and on a closed file
/// Read(), Write() and GetPosition() fail like a failed system call.
///
/// Thread-safety: every operation on an object except IsValid() and GetPath() takes the object's lock, which is not
/// recursive; read GetPosition() before you use it. The static operations take no lock. @b Beware: Open() closes under
/// the lock and opens under it anew, so that of two at once one may lose its stream, and Create(bool), Rename() and Delete()
/// give the lock back before they use the object's path. Leave these, and Open(), to one thread at a time; reading, writing
/// and closing may go on beside them.
///
/// Opening for writing and creating follow a link that has the name, and empty the file that it leads to.
///
/// A file cannot be copied: a copy or an assignment fails the check "0"; with the checks off a copy is a fresh, closed
/// file without a path, and an assignment does nothing.
class KALVOREN_API KFile {
 public:
    /// What CanHandle() finds.
    enum FileCanHandle : int {
        FILE_CANNOT_REACH = 1,   ///< There is no such file, or the way to it is barred.
        FILE_NOT_PERMITTED = 2,  ///< A permission asked for is missing.
        FILE_CAN_HANDLE = 3      ///< All permissions asked for are there.
    };

    // --------------------------------------------------------------------------------------- Making and closing

    /// A closed file without a path.
    KFile();

    /// A closed file with a path; @p bWrite is what Open() without arguments opens it for.
    KFile(const KPath& path, bool bWrite);

    /// The same from a text, whose backslashes become '/'.
    KFile(const char* pszPath, bool bWrite);

    /// Copying fails the check "0". With the checks off, a copy is a new object and an assignment does nothing.
    KFile(const KFile&);
    KFile& operator=(const KFile&);

    /// Does not close an open stream.
    virtual ~KFile();

    /// Does nothing and returns true.
    static bool Init();

    /// Does nothing and returns true.
    static bool Deinit();

    /// Closes the stream that is open, if any, takes the path and opens it for writing ("w+") or reading ("r")
    /// (`fopen`). Logs "*********File Open". On failure logs the error "File Open[%s]\n" and returns false. What the
    /// constructor was told about writing stays.
    bool Open(const KPath& path, bool bWrite);

    /// The same from a text, whose backslashes become '/'.
    bool Open(char* pszPath, bool bWrite);

    /// Opens this file's own path for what the constructor was told.
    bool Open();

    /// Closes the stream (`fclose`), after logging "****File Close". Returns true, also when the file is not open. When
    /// closing fails, the stream is forgotten all the same, the error "File Close[%s]\n" is logged and the result is
    /// false.
    bool Close();

    /// Returns true while a stream is open. Takes no lock.
    bool IsValid();

    /// Returns this file's path.
    const KPath& GetPath() const { return m_Path; }

    // -------------------------------------------------------------------------------------- Reading and writing

    /// Reads a block of @p nSize bytes at a position (`fseek`, `fread`).
    ///
    /// All or nothing: returns true only when the whole block was read. A block that reaches past the end of the file
    /// fails, although what there was is in @p pBuffer, and a block of 0 bytes always fails. A failure logs the error
    /// "File Read[%s]\n".
    ///
    /// The position -1 means the end of the file, where nothing can be read. Of any other position the low 32 bits
    /// count, as a signed number: positions from 2^31 on cannot be reached.
    bool Read(long long nPosition, char* pBuffer, std::size_t nSize);

    /// Writes a block in the same way (`fseek`, `fwrite`); at position -1 it is appended. A failure logs the error
    /// "File Write[%s]\n".
    bool Write(long long nPosition, char* pBuffer, std::size_t nSize);

    /// Moves the stream to a position, -1 being the end (`fseek`). Returns false when the file is not open; when the
    /// move fails, logs the error "File Position[%s]\n" and returns false.
    bool SetPosition(long long nPosition);

    /// Stores the stream's position (`ftell`) in @p nPosition and returns true. When that fails, logs the error
    /// "File Get Position[%s]\n" and returns false.
    ///
    /// @b Beware: when it @b succeeds it @b keeps @b the @b object's @b lock. Every later operation on the same object
    /// that takes the lock blocks for good, from any thread. Use it as the last thing you do with an object, or keep
    /// count of positions yourself. Destroying the object then fails the lock's check "nRet == 0".
    bool GetPosition(long long& nPosition);

    /// Returns the size in bytes, found by going to the end and back (`ftell`, `fseek`), or (size_t)-1 when the file is
    /// not open. Errors of these calls are ignored.
    std::size_t GetSize();

    // ----------------------------------------------------------------------------------- Files by their own path

    /// Creates or empties the file at this object's path, when it is not open; see the static operation. False when it
    /// is.
    bool Create(bool fgWriteOnly);

    /// Closes the file and renames it. False, with nothing touched, when it is not open. The object's own path stays the
    /// old one.
    bool Rename(KPath& to);

    /// Closes the file and deletes it. False, with nothing touched, when it is not open.
    bool Delete();

    // ----------------------------------------------------------------------------------------- Files by any path

    /// Creates a file, or empties one that exists (`fopen` with "w+", or "w" when @p fgWriteOnly, then `fclose`). On
    /// failure logs the error "File Create Error[%s]\n" and returns false.
    static bool Create(KPath& path, bool fgWriteOnly);

    /// Renames a file (`rename`). On failure logs the error "File ReName Error[%s] ot [%s] %d\n" with both paths and
    /// `errno`, and returns false.
    static bool Rename(KPath& from, KPath& to);

    /// Deletes a file or an empty directory (`remove`). On failure logs the error "File Delete Error[%s]\n" and returns
    /// false.
    static bool Delete(KPath& path);

    /// Tells from a file's permission bits (`stat`) whether it can be written and read, as far as asked for.
    ///
    /// The bits are the owner's when the process's real user is the owner, else the group's when its real primary group
    /// is the file's, else those of others. The superuser is treated like anybody else. When there is no such file,
    /// logs the error "File CanHandle Error[%s]\n".
    static FileCanHandle CanHandle(KPath& path, bool bWrite, bool bRead);

    /// Stores a path at which there is no file yet, "KalvorenXXXXXX" with other letters for the X's, in the directory
    /// that `TMPDIR` names or else in /tmp (`mktemp`). Returns true; the path is empty when libc could make no name.
    /// False, with @p out unchanged, when the directory's name is too long for a path. Nothing is created: another
    /// process may take the name first.
    static bool CreateTempFileName(KPath& out);

 private:
    struct FileInfo;

    FileInfo* pInfo;
    KPath m_Path;
    int m_fgWrite;
    KMutex m_Mutex;
};

#endif  // KALVOREN_KFILE_H
