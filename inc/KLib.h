/// @file
/// The loader of shared libraries.
#ifndef KALVOREN_KLIB_H
#define KALVOREN_KLIB_H

#include "KPath.h"
#include "KString.h"
#include "KTypes.h"

/// Loads a shared library by its bare name and finds functions in it.
///
/// All failures are silent: false or null, and nothing is logged.
///
/// Thread-safety: none. One object belongs to one thread at a time.
///
/// A loader cannot be copied: a copy or an assignment fails the check "0"; with the checks off a copy has nothing
/// loaded, and an assignment does nothing.
class KALVOREN_API KLib {
 public:
    /// Nothing loaded.
    KLib();

    /// Copying fails the check "0". With the checks off, a copy is a new object and an assignment does nothing.
    KLib(const KLib&);
    KLib& operator=(const KLib&);

    /// A loaded library @b stays loaded: call Unload() before.
    virtual ~KLib();

    /// Loads the library "lib" + name + ".so" (`dlopen`, resolving functions when they are first called) and returns
    /// true when it is there. A library loaded before by this object stays mapped and is forgotten.
    ///
    /// Give a @b bare name: "codec" loads libcodec.so from the dynamic linker's search path. @b Beware: a name with a
    /// directory, "plugins/codec", becomes "plugins/lib/codec.so", for KPath::GetNameOnly() keeps the slash of a last
    /// component without a dot. To load from a directory, end the name in a dot: "plugins/codec." loads
    /// "plugins/libcodec.so". A name with an extension fails the check "0"; with the checks off the extension is
    /// dropped.
    bool Load(const KPath& path);

    /// Returns the address of a symbol (`dlsym`), or null when there is none or nothing is loaded.
    void* GetFunc(const KString& name);

    /// Unloads the library (`dlclose`) and returns true. Returns false when nothing is loaded, or when the system
    /// refuses; the library then stays loaded.
    bool Unload();

    /// Returns the path that the last Load() gave the system.
    const KPath& GetPath() const { return m_Path; }

 private:
    KPath m_Path;
    void* m_pHandle;
};

#endif  // KALVOREN_KLIB_H
