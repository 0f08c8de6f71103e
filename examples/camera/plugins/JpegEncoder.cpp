// The encoder plug-in "camera-jpeg": JPEG by libjpeg-turbo.

#include <turbojpeg.h>

#include <new>

#include "../Encoder.h"

namespace {

struct Handle {
    tjhandle pCompressor;
    int nWidth;
    int nHeight;
    int nQuality;
};

constexpr int kSampling = TJSAMP_420;

void* Open(int nWidth, int nHeight, int nQuality) {
    tjhandle pCompressor = tjInitCompress();
    return pCompressor != nullptr ? new (std::nothrow) Handle{pCompressor, nWidth, nHeight, nQuality} : nullptr;
}

unsigned int Bound(void* pHandle) {
    const Handle& handle = *static_cast<Handle*>(pHandle);
    return static_cast<unsigned int>(tjBufSize(handle.nWidth, handle.nHeight, kSampling));
}

unsigned int Encode(void* pHandle, const unsigned char* pRgb, unsigned char* pOut) {
    const Handle& handle = *static_cast<Handle*>(pHandle);
    unsigned long nSize = Bound(pHandle);
    const int nFailed = tjCompress2(handle.pCompressor, pRgb, handle.nWidth, 0, handle.nHeight, TJPF_RGB, &pOut, &nSize,
                                    kSampling, handle.nQuality, TJFLAG_NOREALLOC | TJFLAG_FASTDCT);
    return nFailed == 0 ? static_cast<unsigned int>(nSize) : 0;
}

void Close(void* pHandle) {
    Handle* const pOwn = static_cast<Handle*>(pHandle);
    tjDestroy(pOwn->pCompressor);
    delete pOwn;
}

constexpr CameraEncoder kTable = {CAMERA_ENCODER_VERSION, Open, Bound, Encode, Close};

}  // namespace

extern "C" __attribute__((visibility("default"))) const CameraEncoder* CameraEncoderTable() {
    return &kTable;
}
