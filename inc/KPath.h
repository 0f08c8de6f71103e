/// @file
/// The file-system path.
#ifndef KALVOREN_KPATH_H
#define KALVOREN_KPATH_H

#include "KString.h"
#include "KTypes.h"

/// A file-system path: a text with '/' between its components, what the path names, and a buffer in which it is
/// rendered for the operating system.
///
/// All operations are textual: none touches the file system, resolves "." or "..", or collapses separators. Texts that
/// come in through constructors and assignments have every backslash replaced by '/'; SetPath() alone takes a text as it
/// stands.
///
/// A path for whose text, or a part of it, memory is lacking is empty and of TYPE_NONE, whatever was done to it: a part
/// of it could name something else. Files and directories cannot be opened, made or deleted by an empty path. Joined to
/// another path, or another to it, it makes a path again: look at its length before where that matters.
///
/// Thread-safety: none. GetSystemPath() writes into the object, so that even threads that only render one object need a
/// lock of their own.
class KALVOREN_API KPath {
 public:
    /// What a path names.
    enum Type : int {
        TYPE_NONE = 0,       ///< Not known.
        TYPE_DIRECTORY = 1,  ///< A directory; GetSystemPath() then ends the text with a separator.
        TYPE_FILE = 2,       ///< A regular file.
        TYPE_LINK = 3,       ///< A symbolic link.
        TYPE_OTHER = 4       ///< Any other kind of directory entry.
    };

    /// Which separator a rendered path has.
    enum ConvPathTo : int {
        CONV_BACKSLASH = 0,  ///< Every '/' becomes a backslash.
        CONV_SLASH = 1       ///< Separators stay; any other value means this one too.
    };

    // ------------------------------------------------------------------------------------ Making and assigning

    /// An empty path of TYPE_NONE.
    KPath();

    /// A path from a text, with '/' for every backslash; TYPE_NONE. A null @p pszPath gives an empty path.
    KPath(const char* pszPath);
    KPath(const KString& path);

    /// Copies the text and the type, not what was rendered.
    KPath(const KPath& other);

    virtual ~KPath();

    /// Takes a text, with '/' for every backslash; the type becomes TYPE_NONE.
    KPath& operator=(const char* pszPath);
    KPath& operator=(const KString& path);

    /// Takes the text and the type of another path.
    KPath& operator=(const KPath& other);

    /// Takes a text as it stands, backslashes included, and leaves the type. Returns true.
    bool SetPath(const KString& path);

    /// Stores what the path names. Returns true.
    bool SetType(Type eType);

    /// Returns the text.
    const KString& GetPath() const { return m_Path; }

    /// Returns what the path names.
    Type GetType() const { return m_eType; }

    /// Compare the texts alone, as strings do: the type does not count, case does, and two empty paths are not equal.
    bool operator==(const KPath& other) const;
    bool operator!=(const KPath& other) const;

    // ------------------------------------------------------------------------------------------------ Joining

    /// Appends a text with a '/' before it, unless the text starts with one. An empty path becomes the text.
    ///
    /// A path that ends in '/' gets another one all the same: "a/" and "b" give "a//b"; "a" and "" give "a/".
    /// Backslashes in the text stay, and so does the type.
    KPath& operator+=(const KString& text);
    KPath& operator+=(const char* pszText);

    /// Appends a path in the same way, except that an empty path gets a '/' too: "" and "b" give "/b". The other's type
    /// is not taken over.
    KPath& operator+=(const KPath& other);

    /// Returns a copy with a path appended as by `+=` with a path, also for a text, whose backslashes become '/':
    /// `KPath("a") + "b\\c"` is "a/b/c".
    KPath operator+(const KPath& other);
    KPath operator+(const KString& text);
    KPath operator+(const char* pszText);

    // ---------------------------------------------------------------------------------------------- Splitting

    /// Returns the text before the last '/': "a/b" for "a/b/c". Empty when there is none, or when it is the first
    /// character: "" for "/abc".
    KString GetRootOnly() const;

    /// Returns the last component without its extension: "name" for "/x/name.txt".
    ///
    /// @b Beware: without a dot in the last component, its leading '/' stays: "/name" for "/x/name", "/" for "/x/". So
    /// does one that starts the text: "/name" for "/name.txt".
    KString GetNameOnly() const;

    /// Returns the text after the last '/', as a path of TYPE_NONE; an empty one when there is no '/': "" for
    /// "name.txt".
    KPath GetSubPath() const;

    /// Drops the last '/' and what follows. Without any, or when the only one is the first character ("/abc"), nothing
    /// changes. Returns true.
    bool RemoveSubPath();

    /// Returns the extension, without its dot: "gz" for "a/b.tar.gz". Empty when the last component has none, or when
    /// its only dot starts the text (".profile").
    KString GetExt() const;

    /// Sets the extension. A path without one gets a dot and @p ext. Otherwise the old extension's text is replaced
    /// @b wherever @b it @b occurs in the path: "txtfile.txt" with "log" becomes "logfile.log". Returns true.
    bool SetExt(const KString& ext);

    // ---------------------------------------------------------------------------------------------- Rendering

    /// Renders the path for the operating system, with a separator behind a TYPE_DIRECTORY, and returns the address of
    /// this object's own buffer: it is good until the next call on the same object, so use two objects where two
    /// rendered paths are needed at once. An empty directory path renders as "/".
    ///
    /// The rendered text must be shorter than 2047 characters: check "nLen < 2048". With the checks off 2047 still fit,
    /// and a longer text renders as an @b empty one, never as a shorter path.
    char* GetSystemPath(ConvPathTo eConversion);

 private:
    friend class KDirectory;  // gives its entries their names without a copy

    static const int kBufferSize = 2048;

    KALVOREN_LOCAL void EmptyUnlessWhole(unsigned int nLength) noexcept;
    KALVOREN_LOCAL void Append(const char* pszSeparator, int nSeparator, const KString& text);
    KALVOREN_LOCAL void Join(const KString& text);
    KALVOREN_LOCAL KPath Joined(const KPath& other, int nWhole) const;
    KALVOREN_LOCAL int FindExt() const noexcept;

    Type m_eType;
    KString m_Path;
    char m_szSystemPath[kBufferSize];
};

extern template class KList<KPath>;

#endif  // KALVOREN_KPATH_H
