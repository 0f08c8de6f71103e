// What the benchmark of the loader loads.

extern "C" __attribute__((visibility("default"))) int PluginFunction();

int PluginFunction() {
    return 1;
}
