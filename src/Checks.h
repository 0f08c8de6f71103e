// The form that every precondition check of the library takes.
#ifndef KALVOREN_SRC_CHECKS_H
#define KALVOREN_SRC_CHECKS_H

/// The checks of one source file. A file holds one constant of this type and names itself in it.
///
/// Condition texts and signatures are literals: the report of a failed check is fixed text, and compilers differ in how
/// they would spell it (`GetSystemPath(ConvPathTo)` against `GetSystemPath(KPath::ConvPathTo)`).
class Checks {
 public:
    explicit constexpr Checks(const char* pszSource) : m_pszSource(pszSource) {}

    /// Returns @p fgHolds, so that the caller can take its quiet way where it does not hold and the checks are off.
    ///
    /// Where size is what counts a compiler would rather call it: four arguments made ready, and a jump, to learn that a
    /// pointer is not null. Inlined, the file is no larger.
#ifdef __OPTIMIZE__
    [[gnu::always_inline]]
#endif
    bool
    Hold(bool fgHolds, const char* pszCondition, const char* pszSignature,
         unsigned int nLine = __builtin_LINE()) const {
        if (__builtin_expect(!fgHolds, 0)) {
            Report(pszCondition, pszSignature, nLine);
        }
        return fgHolds;
    }

    /// The check that never holds, for a place that must not be reached.
    void Fail(const char* pszSignature, unsigned int nLine = __builtin_LINE()) const {
        Report("0", pszSignature, nLine);
    }

 private:
    /// Ends the process if the checks are on; returns if they are off.
    void Report(const char* pszCondition, const char* pszSignature, unsigned int nLine) const;

    const char* m_pszSource;
};

#endif  // KALVOREN_SRC_CHECKS_H
