// A plug-in for the test of the loader. It is built several times, each with a name of its own to tell by.

// Nobody defines this. A plug-in that refers to it can be loaded only where functions are looked for when first called.
extern "C" int KalvorenNobodyDefinesThis();

#define PLUGIN_API extern "C" __attribute__((visibility("default")))

PLUGIN_API const char* PluginName();
PLUGIN_API int PluginAdd(int nFirst, int nSecond);
PLUGIN_API int PluginCallNobody();
PLUGIN_API int PluginValue;

int PluginValue = 4711;

const char* PluginName() {
    return KALVOREN_PLUGIN_NAME;
}

int PluginAdd(int nFirst, int nSecond) {
    return nFirst + nSecond;
}

int PluginCallNobody() {
    return KalvorenNobodyDefinesThis();
}
