// The configuration: a property list on disk, a plain record in the program.
#ifndef CAMERA_SETTINGS_H
#define CAMERA_SETTINGS_H

#include <KString.h>

#include <functional>
#include <string>
#include <vector>

namespace camera {

/// What can be configured, with the values that hold for keys that are left out. Settings.cpp says which key is which.
struct Settings {
    KString name = "Test camera";

    int nWidth = 640;
    int nHeight = 360;
    int nRate = 25;  ///< Frames a second.
    int nMotionThreshold = 32;

    KString plugin = "camera-jpeg";
    int nQuality = 80;

    int nPort = 8080;  ///< 0 lets the system choose.
    int nClients = 16;
    bool fgLocalOnly = false;

    bool fgRecord = true;
    KString directory = "camera-data";
    int nSegmentSeconds = 60;
    int nLimitKilobytes = 65536;

    KString socket = "camera-control";
    int nChannel = 7;

    int nLogLevel = 1;
};

/// Reads a property list. When there is anything wrong with it returns false, with a message for each fault that names the
/// file and the line or the key; the settings are then not to be used.
bool ReadSettings(const char* pszFile, Settings& settings, std::vector<std::string>& faults);

/// Calls @p visit for each setting with its key, "Http/Port", and its value as a text.
void VisitSettings(const Settings& settings, const std::function<void(const char*, const KString&)>& visit);

}  // namespace camera

#endif  // CAMERA_SETTINGS_H
