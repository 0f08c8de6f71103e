#include "Settings.h"

#include <KPropertyList.h>

#include <cstdlib>
#include <cstring>

#include "kplist/Input.h"
#include "kplist/Linter.h"

namespace camera {

namespace {

/// Where a setting stands in the file, in the record, and what it may be: one of the three members is set. Of a number,
/// the bounds are those of its value, of a text those of its length.
struct Key {
    const char* pszPath;
    int Settings::*pNumber;
    bool Settings::*pFlag;
    KString Settings::*pText;
    int nLeast;
    int nMost;
};

constexpr Key Number(const char* pszPath, int Settings::*pNumber, int nLeast, int nMost) {
    return {pszPath, pNumber, nullptr, nullptr, nLeast, nMost};
}
constexpr Key Flag(const char* pszPath, bool Settings::*pFlag) {
    return {pszPath, nullptr, pFlag, nullptr, 0, 1};
}
constexpr Key Text(const char* pszPath, KString Settings::*pText, int nMost) {
    return {pszPath, nullptr, nullptr, pText, 1, nMost};
}

// The whole configuration. A new setting is a member of Settings and a line here: reading it, checking it, complaining
// about it and showing it on the page all go by this table.
constexpr Key kKeys[] = {
    Text("Identity/Name", &Settings::name, 48),
    Number("Picture/Width", &Settings::nWidth, 160, 1920),
    Number("Picture/Height", &Settings::nHeight, 120, 1080),
    Number("Picture/Rate", &Settings::nRate, 1, 60),
    Number("Picture/MotionThreshold", &Settings::nMotionThreshold, 1, 255),
    Text("Encoder/PlugIn", &Settings::plugin, 64),
    Number("Encoder/Quality", &Settings::nQuality, 1, 100),
    Number("Http/Port", &Settings::nPort, 0, 65535),
    Number("Http/Clients", &Settings::nClients, 1, 64),
    Flag("Http/LocalOnly", &Settings::fgLocalOnly),
    Flag("Recording/Enabled", &Settings::fgRecord),
    Text("Recording/Directory", &Settings::directory, 1024),
    Number("Recording/SegmentSeconds", &Settings::nSegmentSeconds, 1, 3600),
    Number("Recording/LimitKilobytes", &Settings::nLimitKilobytes, 256, 1048576),
    // The system takes socket files with names of up to 107 characters, and the channel's number is part of the name.
    Text("Control/Socket", &Settings::socket, 100),
    // The table of channels has 1000 places.
    Number("Control/Channel", &Settings::nChannel, 0, 999),
    Number("Log/Level", &Settings::nLogLevel, 0, 3),
};

const char* NameOf(KPropertyNodeType eType) {
    switch (eType) {
        case PROPERTY_KEY:
            return "a dictionary";
        case PROPERTY_BOOLEAN:
            return "true or false";
        case PROPERTY_DATA:
            return "data";
        case PROPERTY_DATE:
            return "a date";
        case PROPERTY_STRING:
            return "a string";
        case PROPERTY_INTEGER:
            return "an integer";
        case PROPERTY_NONE:
            break;
    }
    return "nothing";
}

KPropertyNodeType TypeOf(const Key& key) {
    return key.pNumber != nullptr ? PROPERTY_INTEGER : key.pFlag != nullptr ? PROPERTY_BOOLEAN : PROPERTY_STRING;
}

/// Takes a value into the settings. Returns what is wrong with it, an empty text for nothing.
std::string Take(const Key& key, const KString& value, Settings& settings) {
    const std::string range = std::to_string(key.nLeast) + " to " + std::to_string(key.nMost);
    if (key.pNumber != nullptr) {
        // KString::ToDigit() takes "12ab" for 12 and wraps; a configuration deserves better.
        char* pEnd = nullptr;
        const long nValue = std::strtol(value.GetBuffer(), &pEnd, 10);
        if (pEnd == value.GetBuffer() || *pEnd != '\0' || nValue < key.nLeast || nValue > key.nMost) {
            return std::string(value.GetBuffer()) + " is not a number from " + range;
        }
        settings.*key.pNumber = static_cast<int>(nValue);
    } else if (key.pFlag != nullptr) {
        settings.*key.pFlag = value == "TRUE";
    } else {
        if (value.Length() < key.nLeast || value.Length() > key.nMost) {
            return "the text has " + std::to_string(value.Length()) + " characters, not " + range;
        }
        settings.*key.pText = value;
    }
    return "";
}

/// Goes through the tree and takes every value by its path.
class Reader {
 public:
    Reader(const std::string& file, Settings& settings, std::vector<std::string>& faults)
        : m_File(file), m_Settings(settings), m_Faults(faults) {}

    /// Goes through what hangs under a key: more keys, or a value.
    void Read(KPropertyNode& node, const std::string& path) {
        for (int i = 0; i < node.GetNodeCount(); ++i) {
            KPropertyNode& child = **node.GetNode(i);
            if (child.GetValueType() == PROPERTY_KEY) {
                Read(child, (path.empty() ? "" : path + "/") + child.GetKey().GetBuffer());
            } else if (i == 0 && node.GetNodeCount() == 1) {
                ReadValue(child, path);
            } else {
                Complain(path, "has more than one value");
            }
        }
    }

    void Complain(const std::string& path, const std::string& fault) {
        m_Faults.push_back(m_File + ": " + path + ": " + fault);
    }

 private:
    void ReadValue(KPropertyNode& value, const std::string& path) {
        for (const Key& key : kKeys) {
            if (path == key.pszPath) {
                const std::string fault =
                    value.GetValueType() != TypeOf(key)
                        ? std::string(NameOf(TypeOf(key))) + " is wanted, not " + NameOf(value.GetValueType())
                        : Take(key, value.GetStringValue(), m_Settings);
                if (!fault.empty()) {
                    Complain(path, fault);
                }
                return;
            }
        }
        Complain(path, "there is no such setting");
    }

    const std::string m_File;
    Settings& m_Settings;
    std::vector<std::string>& m_Faults;
};

}  // namespace

bool ReadSettings(const char* pszFile, Settings& settings, std::vector<std::string>& faults) {
    std::string text;
    std::string reason;
    if (!kplist::ReadText(pszFile, text, reason)) {
        faults.push_back(std::string(pszFile) + ": " + reason);
        return false;
    }
    // The library's reader says nothing about what it stumbles over: it stops, and half a configuration looks like a whole
    // one. So the text goes through the checks of `kplist --check` first.
    for (const kplist::Finding& finding : kplist::Lint(text).findings) {
        faults.push_back(std::string(pszFile) + ":" + std::to_string(finding.nLine) + ":" +
                         std::to_string(finding.nColumn) + ": " + finding.message);
    }
    if (!faults.empty()) {
        return false;
    }
    Reader reader(pszFile, settings, faults);
    reader.Read(*kplist::ParseText(text).pRoot, "");
    // KLib takes a bare name; a path or an ending would not find the file one thinks of, or fail a check.
    if (std::strpbrk(settings.plugin.GetBuffer(), "./\\") != nullptr) {
        reader.Complain("Encoder/PlugIn", "\"" + std::string(settings.plugin.GetBuffer()) +
                                              "\" is not a bare name, as \"camera-jpeg\" is for libcamera-jpeg.so");
    }
    return faults.empty();
}

void VisitSettings(const Settings& settings, const std::function<void(const char*, const KString&)>& visit) {
    for (const Key& key : kKeys) {
        KString value;
        if (key.pNumber != nullptr) {
            value.Sprintf("%d", settings.*key.pNumber);
        } else if (key.pFlag != nullptr) {
            value = settings.*key.pFlag ? "yes" : "no";
        } else {
            value = settings.*key.pText;
        }
        visit(key.pszPath, value);
    }
}

}  // namespace camera
