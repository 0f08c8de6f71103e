// An encoder plug-in that needs no other library: what it makes begins and ends as a JPEG does, and shows nothing but how
// often it was made to encode, and how many different pictures. With KALVOREN_STUB_VERSION it claims another version of the
// interface.

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <set>

#include "Encoder.h"

namespace {

constexpr unsigned int kSize = 32 * 1024;

struct Handle {
    std::size_t nPictureSize;
    std::mutex mutex;  // whoever encodes, and with how many threads
    unsigned int nEncodings = 0;
    std::set<std::uint64_t> pictures;  // digests of them
};

void* Open(int nWidth, int nHeight, int) {
    auto* const pHandle = new Handle;
    pHandle->nPictureSize = static_cast<std::size_t>(nWidth) * static_cast<std::size_t>(nHeight) * 3;
    return pHandle;
}

unsigned int Bound(void*) {
    return kSize;
}

std::uint64_t DigestOf(const unsigned char* pBytes, std::size_t nSize) {
    std::uint64_t nDigest = 0xCBF29CE484222325;  // FNV-1a
    for (std::size_t n = 0; n < nSize; ++n) {
        nDigest = (nDigest ^ pBytes[n]) * 0x100000001B3;
    }
    return nDigest;
}

void Count(Handle& handle, const unsigned char* pRgb, char* pOut, std::size_t nSize) {
    const std::uint64_t nDigest = DigestOf(pRgb, handle.nPictureSize);
    const std::lock_guard<std::mutex> lock(handle.mutex);
    handle.pictures.insert(nDigest);
    std::snprintf(pOut, nSize, "encodings %u pictures %u", ++handle.nEncodings,
                  static_cast<unsigned int>(handle.pictures.size()));
}

unsigned int Encode(void* pHandle, const unsigned char* pRgb, unsigned char* pOut) {
    std::memcpy(pOut, pRgb, kSize);
    std::memcpy(pOut, "\xFF\xD8", 2);
    Count(*static_cast<Handle*>(pHandle), pRgb, reinterpret_cast<char*>(pOut) + 2, 64);
    std::memcpy(pOut + kSize - 2, "\xFF\xD9", 2);
    return kSize;
}

void Close(void* pHandle) {
    delete static_cast<Handle*>(pHandle);
}

constexpr CameraEncoder kTable = {KALVOREN_STUB_VERSION, Open, Bound, Encode, Close};

}  // namespace

extern "C" __attribute__((visibility("default"))) const CameraEncoder* CameraEncoderTable() {
    return &kTable;
}
