// What an encoder plug-in offers: C functions in a table, so that plug-in and program may come from different compilers.
#ifndef CAMERA_ENCODER_H
#define CAMERA_ENCODER_H

extern "C" {

/// The version of this table. A plug-in with another one is refused.
enum { CAMERA_ENCODER_VERSION = 1 };

struct CameraEncoder {
    int nVersion;  ///< CAMERA_ENCODER_VERSION

    /// Prepares for pictures of one size at a quality of 1 to 100. Returns a handle, null when that fails.
    void* (*pOpen)(int nWidth, int nHeight, int nQuality);

    /// Returns the size of a buffer that holds any encoded picture.
    unsigned int (*pBound)(void* pHandle);

    /// Encodes a picture (rows of 8-bit red, green and blue) into a buffer of that size. Returns the number of bytes, 0 when
    /// it fails.
    unsigned int (*pEncode)(void* pHandle, const unsigned char* pRgb, unsigned char* pOut);

    void (*pClose)(void* pHandle);
};

/// The one symbol that is looked for in a plug-in, "CameraEncoderTable". The table lives as long as the plug-in is loaded.
typedef const struct CameraEncoder* (*CameraEncoderTableFunction)();
}

#endif  // CAMERA_ENCODER_H
