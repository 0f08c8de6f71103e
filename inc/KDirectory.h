/// @file
/// The directory.
#ifndef KALVOREN_KDIRECTORY_H
#define KALVOREN_KDIRECTORY_H

#include "KList.h"
#include "KPath.h"
#include "KTypes.h"

/// A directory, read whole and sorted when it is opened, and operations on directories by path.
///
/// Each entry is a KPath whose text is the entry's bare name (backslashes in it are kept) and whose type is the kind that
/// the system reports: TYPE_DIRECTORY, TYPE_FILE, TYPE_LINK, or TYPE_OTHER for anything else, which includes everything on
/// a file system that reports no kinds. The entries "." and ".." are there like any other. An entry takes a little more
/// than two kilobytes of memory, for the path's buffer.
///
/// Operations that need the directory record check "pInfo"; with the checks off, without a record, Read() is false and
/// the others are true, with nothing done. Operations by path check that their paths are not empty.
///
/// Thread-safety: none. Use one object from one thread at a time.
///
/// A directory cannot be copied: a copy or an assignment fails the check "0"; with the checks off a copy is a fresh,
/// closed directory, and an assignment does nothing.
class KALVOREN_API KDirectory {
 public:
    /// How far an operation goes.
    enum DirectoryAction : int {
        DIR_SINGLE = 0,    ///< This directory only.
        DIR_RECURSIVE = 1  ///< With all missing parents (creating), or with everything in it (deleting).
    };

    /// The order of a list.
    enum SortMethod : int {
        SORT_ASCENDING = 0,          ///< By bytes (`strcmp`).
        SORT_DESCENDING = 1,         ///< By bytes, downwards.
        SORT_ASCENDING_NOCASE = 2,   ///< Without regard to case (`strcasecmp`). What Open() sorts by.
        SORT_DESCENDING_NOCASE = 3,  ///< Without regard to case, downwards.
    };

    /// What CanHandle() finds.
    enum DirectoryCanHandle : int {
        DIR_STAT_FAILED = 0,    ///< It opens, but its status cannot be read.
        DIR_CANNOT_OPEN = 1,    ///< It does not open.
        DIR_NOT_DIRECTORY = 2,  ///< It opened, and was no directory by the time its status was read.
        DIR_NOT_PERMITTED = 3,  ///< A permission asked for is missing.
        DIR_CAN_HANDLE = 4      ///< All permissions asked for are there.
    };

    /// A closed directory without entries.
    KDirectory();

    /// Copying fails the check "0". With the checks off, a copy is a new object and an assignment does nothing.
    KDirectory(const KDirectory&);
    KDirectory& operator=(const KDirectory&);

    /// Calls Close(), so destroying a directory that is not open logs the error "Directory Close %s, Handle[%x] is Empty ".
    virtual ~KDirectory();

    /// Do nothing.
    static void Init();
    static void Deinit();

    // ------------------------------------------------------------------------------------------------- Reading

    /// Reads a directory (`opendir`, `readdir`) and sorts all entries held by SORT_ASCENDING_NOCASE. The directory stays
    /// open until Close(). The entries of a directory read before stay in the list, together with the new ones.
    ///
    /// Returns false for an empty path, for a path that cannot be opened (nothing is logged), and while a directory is
    /// still open, which logs the error "Directory Read %s, Handle[%x] is Read". The object's path is @p path in any case.
    ///
    /// Logs "Directory Read %s, Handle[%x] is Alread Read %d" for each entry, with its name and a number that counts the
    /// entries read in this process, and "Directory Open %s, Handle[%x]" at the end. An entry for which memory is lacking is
    /// left out of the list, and the result is true all the same.
    ///
    /// The time grows with n log n of the number of entries.
    bool Open(KPath& path);

    /// Closes the directory (`closedir`); the entries stay. Logs "Directory Close %s, Handle[%x] ".
    ///
    /// When it is not open, logs the error "Directory Close %s, Handle[%x] is Empty " and returns false. When the handle is
    /// not good, logs the error "Directory dirfd failed for close %s, Handle[%x] is Empty " and returns false. When closing
    /// fails, the error is the text of the log line with the handle; the handle is forgotten, and the result is false.
    bool Close();

    /// Assigns entry @p nIndex to @p out; a negative index means the first. Returns false past the last.
    bool Read(int nIndex, KPath& out);

    /// Append copies of all entries, of the files, or of the directories, to a list, in order. Return true. When memory is
    /// lacking they stop, log the error "Directory ReadAll Failed %s, Handle[%x]" (ReadAll) or "Directory ReadFiles Failed
    /// %s, Handle[%x]" (both others) and return false.
    bool ReadAll(KList<KPath>& out);
    bool ReadFiles(KList<KPath>& out);
    bool ReadDirectories(KList<KPath>& out);

    /// Returns the number of entries held.
    int GetCount() const;

    /// Sorts a list of paths by their texts, in place. Returns false for an empty list.
    ///
    /// Texts that compare equal ("a" and "A" without regard to case) come out in the order in which an exchange sort leaves
    /// them: for i from the first, for j from i, entries i and j trade places when they are out of order. That order is
    /// fixed, but it is not the order they had. The time grows with n log n.
    ///
    /// A comparison in which a path has no text says "equal" by bytes and "lesser" without regard to case, whichever of the
    /// two has none: such a path stays where it is, or by SORT_DESCENDING_NOCASE trades places with every other. Then the
    /// exchanges are really made, and the time grows with n x n. Directories have no such entries.
    ///
    /// When memory is lacking the list stays as it is, and the result is false.
    ///
    /// A method that is not listed fails the check "0"; with the checks off the list is left @b empty and the result is
    /// false.
    static bool Sort(KList<KPath>& list, SortMethod eMethod);

    // ------------------------------------------------------------------------------------- Directories by path

    /// Creates a directory with mode 0755 less the process's umask (`mkdir`); DIR_RECURSIVE creates its parents too. What
    /// exists already counts as created. Returns false for an empty path. A failure logs the error "Directory Create Error
    /// %s, ErrorNO:%d" with `errno` and returns false, with the parents made so far left in place. Any other action does
    /// nothing and returns true.
    static bool CreateDir(KPath& path, DirectoryAction eAction);

    /// Deletes a directory. The path must not be empty: check "path.GetPath().Length() != 0".
    ///
    /// DIR_SINGLE (`rmdir`): @b the @b result @b is @b inverted. When the directory was deleted it logs the error
    /// "Directory Delete Error %s, ErrorNO:%d", with whatever `errno` was before, and returns @b false; when it could not be
    /// deleted it returns @b true.
    ///
    /// DIR_RECURSIVE deletes everything in the directory, then itself (`remove`). Symbolic links in it are deleted, not
    /// followed; but where @p path itself is one, the directory that it leads to is emptied before the link is deleted.
    /// Everything inside is reached from the directory that it was found in, by its name alone (`openat`, `fstatat`,
    /// `unlinkat`): a directory that another program moves, or replaces by a link, while its tree is being deleted does not
    /// make the deletion reach anything outside.
    /// Returns true when @p path itself is gone; otherwise logs the same error and returns false. What cannot be deleted
    /// inside is passed over. A directory that cannot be read is reported on standard error as "Couldn't open the directory"
    /// (`perror`), and deleted if it is empty, or a file; an entry whose status cannot be read logs the error "Directory
    /// Delete lstat Error %s, ErrorNO:%d" and is deleted as a file would be. Paths in the tree must fit
    /// KPath::GetSystemPath(); with the checks off, what has a longer path stays. So does, and without a line, what there is
    /// no memory to name: a path is never cut. One descriptor is open for each level of the tree.
    ///
    /// Any other action fails the check "0"; with the checks off it does nothing and returns true.
    static bool DeleteDir(KPath& path, DirectoryAction eAction);

    /// Renames a directory (`rename`). Neither path may be empty: checks "oldPath.GetPath().Length() != 0" and
    /// "newPath.GetPath().Length() != 0". A failure logs the error "Directory Rename Error %s to %s, ErrorNO:%d" and returns
    /// false.
    static bool RenameDir(KPath& oldPath, KPath& newPath);

    /// Tells from a directory's permission bits (`opendir`, `stat`) whether it can be written and read, as far as asked
    /// for; the bits are chosen as by KFile::CanHandle(). The path must not be empty: check
    /// "path.GetPath().Length() != 0". @b Beware: only DIR_CAN_HANDLE closes the directory again; DIR_STAT_FAILED,
    /// DIR_NOT_DIRECTORY and DIR_NOT_PERMITTED leave a descriptor open for good.
    static DirectoryCanHandle CanHandle(KPath& path, bool bWrite, bool bRead);

 private:
    struct DirectoryInfo;

    KALVOREN_LOCAL bool ReadSome(KList<KPath>& out, bool (*isWanted)(const KPath&), const char* pszError);

    DirectoryInfo* pInfo;
    KList<KPath> m_Entries;
    KPath m_Path;
};

#endif  // KALVOREN_KDIRECTORY_H
