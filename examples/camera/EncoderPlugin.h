// Loads an encoder plug-in by its name.
#ifndef CAMERA_ENCODERPLUGIN_H
#define CAMERA_ENCODERPLUGIN_H

#include <KLib.h>
#include <KString.h>

#include "Encoder.h"
#include "Settings.h"

namespace camera {

class EncoderPlugin {
 public:
    EncoderPlugin() : m_pTable(nullptr), m_pHandle(nullptr) {}
    ~EncoderPlugin();
    EncoderPlugin(const EncoderPlugin&) = delete;
    EncoderPlugin& operator=(const EncoderPlugin&) = delete;

    /// Loads the plug-in that the settings name and prepares it. On failure returns false, with why in @p reason.
    bool Load(const Settings& settings, KString& reason);

    /// As in CameraEncoder.
    unsigned int Bound() const { return m_pTable->pBound(m_pHandle); }
    unsigned int Encode(const unsigned char* pRgb, unsigned char* pOut) const {
        return m_pTable->pEncode(m_pHandle, pRgb, pOut);
    }

 private:
    KLib m_Library;
    const CameraEncoder* m_pTable;
    void* m_pHandle;
};

}  // namespace camera

#endif  // CAMERA_ENCODERPLUGIN_H
