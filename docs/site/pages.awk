# Pages for Doxygen: each gets its file's name as its address, and a list of its sections below its title.
/^# / && !titled {
    titled = 1
    name = FILENAME
    gsub(/.*\/|\.md$/, "", name)
    if (name != "index") { $0 = $0 " {#" name "}\n\n[TOC]" }
}
# Links from page to page by that address: Doxygen would look for the whole path of the file, which may have spaces.
{
    while (match($0, /\]\([a-z]+\.md\)/)) {
        $0 = substr($0, 1, RSTART + 1) "@ref " substr($0, RSTART + 2, RLENGTH - 6) substr($0, RSTART + RLENGTH - 1)
    }
    print
}
