// For tests that put a function of their own in front of libc's, to see how it is called or to make it fail. A function
// that a test program defines is found before the one of a shared library, also by the library under test.
#ifndef KALVOREN_TESTS_NEXTFUNCTION_H
#define KALVOREN_TESTS_NEXTFUNCTION_H

#include <dlfcn.h>

namespace support {

/// The function that a test's own stands in front of: libc's, or a sanitizer's wrapper round it.
template <typename Function>
Function* NextFunction(Function*, const char* pszName) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, pszName));
}

}  // namespace support

#endif  // KALVOREN_TESTS_NEXTFUNCTION_H
