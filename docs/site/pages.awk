# Pages for Doxygen: each gets its file's name as its address, and a list of its sections below its title.
/^# / && !titled {
    titled = 1
    name = FILENAME
    gsub(/.*\/|\.md$/, "", name)
    if (name != "index") { $0 = $0 " {#" name "}\n\n[TOC]" }
}
{ print }
