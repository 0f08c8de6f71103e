#include "EncoderPlugin.h"

namespace camera {

bool EncoderPlugin::Load(const Settings& settings, KString& reason) {
    // KLib makes "libcamera-jpeg.so" of "camera-jpeg" and leaves the search to the dynamic linker.
    if (!m_Library.Load(KPath(settings.plugin))) {
        reason.Sprintf("%s cannot be loaded", m_Library.GetPath().GetPath().GetBuffer());
        return false;
    }
    const auto pFunction = reinterpret_cast<CameraEncoderTableFunction>(m_Library.GetFunc("CameraEncoderTable"));
    m_pTable = pFunction != nullptr ? pFunction() : nullptr;
    if (m_pTable == nullptr || m_pTable->nVersion != CAMERA_ENCODER_VERSION) {
        reason.Sprintf("%s is no encoder for this camera", m_Library.GetPath().GetPath().GetBuffer());
        return false;
    }
    m_pHandle = m_pTable->pOpen(settings.nWidth, settings.nHeight, settings.nQuality);
    if (m_pHandle == nullptr) {
        reason.Sprintf("%s cannot encode such pictures", m_Library.GetPath().GetPath().GetBuffer());
    }
    return m_pHandle != nullptr;
}

EncoderPlugin::~EncoderPlugin() {
    if (m_pHandle != nullptr) {
        m_pTable->pClose(m_pHandle);
    }
    m_Library.Unload();  // The loader's destructor leaves the library loaded.
}

}  // namespace camera
