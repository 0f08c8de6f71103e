// An encoder plug-in that needs no other library: what it makes begins and ends as a JPEG does, and shows nothing. With
// KALVOREN_STUB_VERSION it claims another version of the interface.

#include <cstring>

#include "Encoder.h"

namespace {

constexpr unsigned int kSize = 32 * 1024;
char g_Handle;

void* Open(int, int, int) {
    return &g_Handle;
}

unsigned int Bound(void*) {
    return kSize;
}

unsigned int Encode(void*, const unsigned char* pRgb, unsigned char* pOut) {
    std::memcpy(pOut, pRgb, kSize);
    std::memcpy(pOut, "\xFF\xD8", 2);
    std::memcpy(pOut + kSize - 2, "\xFF\xD9", 2);
    return kSize;
}

void Close(void*) {}

constexpr CameraEncoder kTable = {KALVOREN_STUB_VERSION, Open, Bound, Encode, Close};

}  // namespace

extern "C" __attribute__((visibility("default"))) const CameraEncoder* CameraEncoderTable() {
    return &kTable;
}
