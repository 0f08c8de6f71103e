// Starts the library and stops it.
#include "KDebug.h"
#include "KEntry.h"

int main(int argc, char** argv) {
    g_eDebugLevel = 3;
    KEntry::Init(argc, argv);
    KEntry::Deinit();
}
