// Linked into everything whose sources have many changes in them: says which one runs.
#include "switch.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <unistd.h>

int kalvorenChange = 0;
unsigned char* kalvorenMarks = nullptr;

namespace {

// Before every constructor of a static object: these are changed as well.
__attribute__((constructor(101))) void Choose() {
    if (const char* pszChange = getenv("KALVOREN_CHANGE")) {
        kalvorenChange = atoi(pszChange);
    }
    if (const char* pszMarks = getenv("KALVOREN_MARKS")) {
        // A file, so that processes which a test makes set marks as well.
        const int fd = open(pszMarks, O_RDWR | O_CLOEXEC);
        if (fd >= 0) {
            void* pMarks = mmap(nullptr, 65536, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
            kalvorenMarks = pMarks == MAP_FAILED ? nullptr : static_cast<unsigned char*>(pMarks);
            close(fd);
        }
    }
}

}  // namespace
