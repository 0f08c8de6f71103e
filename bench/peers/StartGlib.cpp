// Does with GLib what GLib programs begin with: a main context and its end.
#include <glib.h>

int main() {
    g_main_context_unref(g_main_context_new());
}
