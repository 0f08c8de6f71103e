// Writes JSON.
#ifndef CAMERA_JSON_H
#define CAMERA_JSON_H

#include <KString.h>

namespace camera {

/// Returns a text in quotes, with what JSON wants escaped.
inline KString Quoted(const KString& text) {
    KString quoted("\"");
    for (int i = 0; i < text.Length(); ++i) {
        const char ch = text[i];
        if (ch == '"' || ch == '\\') {
            quoted += KString("\\") + KString(&ch, 1);
        } else if (static_cast<unsigned char>(ch) < ' ') {
            KString escape;
            escape.Sprintf("\\u%04x", static_cast<unsigned int>(ch));
            quoted += escape;
        } else {
            quoted += KString(&ch, 1);
        }
    }
    return quoted + "\"";
}

}  // namespace camera

#endif  // CAMERA_JSON_H
