// Included ahead of sources that have many changes in them, of which one runs: see changes.py.
#pragma once

extern "C" __attribute__((visibility("hidden"))) int kalvorenChange;  // which one; 0 for none
extern "C"
    __attribute__((visibility("hidden"))) unsigned char* kalvorenMarks;  // a mark for each function that was reached

static inline void kalvorenReached(int nFunction) {
    if (kalvorenMarks) {
        kalvorenMarks[nFunction] = 1;
    }
}
