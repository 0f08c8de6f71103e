/// @file
/// The property list: its nodes and its reader.
#ifndef KALVOREN_KPROPERTYLIST_H
#define KALVOREN_KPROPERTYLIST_H

#include "KList.h"
#include "KPath.h"
#include "KString.h"
#include "KThread.h"
#include "KTime.h"
#include "KTypes.h"

class KPropertyList;

/// What a node is.
enum KPropertyNodeType : int {
    PROPERTY_NONE = 0,     ///< A node as it is made; the root of a tree. No text.
    PROPERTY_KEY = 1,      ///< A key. The text is the key; the children are its value.
    PROPERTY_BOOLEAN = 2,  ///< "TRUE" or "FALSE".
    PROPERTY_DATA = 3,     ///< Data, as written: not decoded.
    PROPERTY_DATE = 4,     ///< A date, as written.
    PROPERTY_STRING = 5,   ///< A text.
    PROPERTY_INTEGER = 6   ///< A number, as written.
};

/// One node of a property list's tree: a type, a text, and children in order.
///
/// Keys, values and elements of arrays are nodes. Dictionaries and arrays have no node of their own: their contents
/// hang under the key that names them. A dictionary's keys, and an array's elements in order, are the children of that
/// key.
///
/// Ownership: a node owns its children, but @b its @b destructor @b destroys @b only @b the @b first @b half of them,
/// rounded up; the others stay allocated for good. Trees are meant to be read once and to live as long as the program.
///
/// Thread-safety: Set(), AddNode(), RemoveNode() and the destructor hold the node's lock. Reading takes no lock of the
/// node's; the list of children has its own. Do not change nodes that another thread reads.
class KALVOREN_API KPropertyNode {
 public:
    /// A node of PROPERTY_NONE without text or children.
    KPropertyNode();

    KPropertyNode(const KPropertyNode&) = delete;
    KPropertyNode& operator=(const KPropertyNode&) = delete;

    /// Destroys the first half of the children, rounded up, and what hangs under them.
    ~KPropertyNode();

    /// Stores type and text. Returns true.
    bool Set(KPropertyNodeType eType, const KString& text);

    /// Returns the type.
    KPropertyNodeType GetValueType();

    /// Return a copy of the text, all three, whatever the type.
    KString GetKey();
    KString GetStringValue();
    KString GetDataValue();

    /// @b Returns @b -1 @b for @b every @b node. To read a number, use `GetStringValue().ToDigit()`.
    int GetNumberValue();

    /// Returns true when the text starts with "TRUE" in any case: for TRUE, true and Truest.
    bool GetBooleanValue();

    /// Returns the time that a text like 2010-05-06T07:08:09Z stands for, in UTC. What follows the seconds is not looked
    /// at, so that "+09:00" there counts as UTC too; fields outside the calendar add their value. Any other text gives a
    /// time of -86400 seconds, which is not valid (KTime::IsValid()).
    KTime GetDateValue();

    /// Returns the address of the place that holds the child at @p nIndex, or null when the index is negative or not
    /// below the number of children. The address is good until that child is removed.
    KPropertyNode** GetNode(int nIndex);

    /// Returns the address of the place that holds the key found by going down a path of keys, or null when there is
    /// none. Keys are compared with regard to case. At each level the first match decides; a later one of the same name
    /// is never looked at. Only keys are found: ask the key for an array's elements with GetNode(int).
    KPropertyNode** GetNode(KList<KString>& path);

    /// Returns the number of children.
    int GetNodeCount() const;

    /// Appends a child, which may be null, and takes ownership of it. Returns true. @b Beware: it checks
    /// "pNode == __null", so with the checks @b on, adding any node ends the process. Trees made by hand are made with
    /// the checks off.
    bool AddNode(KPropertyNode* pNode);

    /// Takes the child at @p nIndex out of the tree without destroying it: the caller owns it then, and needs its
    /// address from before. An index outside does nothing. Returns true.
    bool RemoveNode(int nIndex);

 private:
    friend class KPropertyList;

    KALVOREN_LOCAL void DetachDoomed(KList<KPropertyNode*>::Appender& parents);
    KALVOREN_LOCAL void DestroyDoomed();

    KPropertyNodeType m_eType;
    KString m_Text;
    KList<KPropertyNode*> m_Children;
    KMutex m_Mutex;
};

/// Reads XML property lists: configuration files like this one.
///
///     <?xml version="1.0" encoding="UTF-8"?>
///     <plist version="1.0">
///     <dict>
///     	<key>Name</key>
///     	<string>North gate</string>
///     	<key>Ports</key>
///     	<array>
///     		<integer>80</integer>
///     		<integer>554</integer>
///     	</array>
///     </dict>
///     </plist>
///
/// The reader is small and forgiving, and no XML parser. It reports nothing: what it cannot read ends the read, and what
/// was read until then is the tree. `kplist --check` tells where and why it would stop.
///
/// - It knows the elements plist, dict, array, key, string, integer, data, date, true/ and false/, in any case. The first
///   other element ends the read.
/// - Elements are recognised by how their tag @b starts: `<plist version="1.0">` opens a list. A self-closing `<dict/>`
///   @b opens a dictionary.
/// - Between elements there may be carriage returns, line feeds and tabs. @b A @b space @b ends @b the @b read: indent by
///   tabs.
/// - The closing tag of a value or key is looked for with the whole text of its opening tag, so these take no attributes.
///   Where it is missing the read ends.
/// - A value's text goes up to the next '<', and what stands between that and the closing tag is skipped. Entities are not
///   decoded, data is not decoded, comments are not known.
/// - A NUL ends the text.
/// - @b An @b empty @b value @b takes @b the @b text @b of @b the @b value @b or @b key @b before @b it at the same level;
///   the first one of a level is the empty text.
/// - A value before any key goes to the node its level belongs to.
/// - The log gets a line for each tag and each text, unless it is too long for one. A closing tag that ends the read is
///   logged once for each level that was open.
///
/// Memory and time are proportional to the size of the text, however its tags are nested (apart from the lines that the
/// log gets for one closing tag on many levels).
///
/// Thread-safety: Init() and Deinit() belong to start-up and shut-down. Reading the tree: see KPropertyNode.
///
/// A property list cannot be copied: a copy or an assignment fails the check "0"; with the checks off a copy has an
/// empty tree, and an assignment does nothing.
class KALVOREN_API KPropertyList {
 public:
    /// Reads the process's property list from a file, once: when there is one already, nothing happens.
    static void Init(const KPath& path);

    /// Returns the process's property list. Without one, the check "false" fails; with the checks off it returns null.
    static KPropertyList* GetInstance();

    /// Destroys the process's property list, if there is one.
    static void Deinit();

    /// Reads a file. One that cannot be opened or read, is a directory, or is too large gives an empty tree. KFile logs why
    /// where opening or reading failed; that a size is refused is not logged.
    explicit KPropertyList(const KPath& path);

    /// Reads a text.
    explicit KPropertyList(const KString& text);

    /// Copying fails the check "0". With the checks off, a copy is a new object and an assignment does nothing.
    KPropertyList(const KPropertyList&);
    KPropertyList& operator=(const KPropertyList&);

    virtual ~KPropertyList();

    /// Returns the root, a node of PROPERTY_NONE whose children are the top-level keys. It belongs to the property list.
    KPropertyNode* GetRoot() { return &m_Root; }

    /// Returns what stood between the brackets of the last XML declaration or DOCTYPE.
    KString GetHeader() const { return m_Header; }

    /// Reads a text into the children of a node and cuts off what was read. Returns true. It ends behind the closing tag
    /// of the list, dictionary or array around it, or where it cannot read on; a null @p pParent reads without making
    /// nodes. The nodes are added in one go at the end.
    ///
    /// A closing tag of anything else fails the check "0"; with the checks off it ends the read.
    bool Parshing(KString& text, KPropertyNode* pParent);

 private:
    class KALVOREN_LOCAL Reader;

    KALVOREN_LOCAL KPropertyList();

    KString m_Header;
    KString m_Reserved[2];
    KPropertyNode m_Root;

    KALVOREN_LOCAL static KPropertyList* g_pHandle;
};

extern template class KList<KPropertyNode*>;

#endif  // KALVOREN_KPROPERTYLIST_H
