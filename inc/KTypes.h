/// @file
/// The types and macros that every other header stands on.
#ifndef KALVOREN_KTYPES_H
#define KALVOREN_KTYPES_H

/// The version of the headers. The shared library's file name ends in the same three numbers.
#define KALVOREN_VERSION_MAJOR 1
#define KALVOREN_VERSION_MINOR 0
#define KALVOREN_VERSION_PATCH 0
#define KALVOREN_VERSION "1.0.0"

/// Marks what the shared library exports; everything else is hidden.
#define KALVOREN_API __attribute__((visibility("default")))

/// Hides a part of an exported class that no program calls.
#define KALVOREN_LOCAL __attribute__((visibility("hidden")))

/// Marks the small parts of a template whose larger operations the shared library exports: they become part of whatever
/// calls them, in every build, so that no program needs a symbol for them. (A build that counts how often each function
/// runs keeps them apart: library and program together define it as `inline`.) Clang is not to put its check of function
/// types in front of them: it would ask the linker for those that are parts of what the library exports.
#ifndef KALVOREN_INLINE
#ifdef __clang__
#define KALVOREN_INLINE __attribute__((always_inline, visibility("hidden"), no_sanitize("function"))) inline
#else
#define KALVOREN_INLINE __attribute__((always_inline, visibility("hidden"))) inline
#endif
#endif

/// Lets the compiler check the arguments of a printf-like operation. Positions count from 1, and a member's hidden
/// object argument counts as the first.
#define KALVOREN_PRINTF(formatPosition, firstArgument) __attribute__((format(printf, formatPosition, firstArgument)))

/// The same for a scanf-like operation.
#define KALVOREN_SCANF(formatPosition, firstArgument) __attribute__((format(scanf, formatPosition, firstArgument)))

/// One unit of text: an 8-bit byte. Text is UTF-8 or whatever the process's locale makes of it; the library never
/// looks at more than one byte at a time.
typedef char tchar;

#endif  // KALVOREN_KTYPES_H
