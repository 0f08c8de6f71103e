// Does with GLib what GLib programs begin with: a main context and its end.
#include <glib.h>

#include "Start.h"

int main(int argc, char** argv) {
    GMainContext* pContext = nullptr;
    return StartAndStop(
        argc, argv, [&] { pContext = g_main_context_new(); }, [&] { g_main_context_unref(pContext); });
}
