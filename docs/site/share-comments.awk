# Headers for Doxygen: a comment in them is about all declarations below it, up to the next blank line. Doxygen takes it for
# the first alone, so the others get a copy each. In a group with a name a comment is about one declaration, and those
# without one get the name.
{
    code = $0
    sub(/[ \t]*\/\/.*/, "", code)
}
/^[ \t]*$/ {
    comment = ""
    collecting = 0
    begun = 0
    print
    next
}
/^[ \t]*\/\/\/([^<]|$)/ {
    comment = collecting ? comment "\n" $0 : $0
    collecting = 1
    fresh = 1
    if ($0 ~ /@name /) {
        group = $0
        sub(/@name /, "", group)
        sub(/$/, ".", group)
    }
    if ($0 ~ /@}/) { group = "" }
    print
    if ($0 ~ /@file|@[{}]/) {
        comment = ""
        collecting = 0
        fresh = 0
        if ($0 ~ /@[{]/) { print "" }
    }
    next
}
{
    if (!begun && !fresh && code !~ /^[ \t]*[}]/) {
        if (comment != "") { print comment } else if (group != "") { print group }
    }
    if (group != "") { comment = "" }
    collecting = 0
    fresh = 0
    # A declaration ends with its semicolon or body; what opens a body on a line of its own has members to itself.
    begun = code !~ /[;}]$/ && code !~ /^#/
    if (code ~ /[{]$/) { comment = ""; begun = 0 }
    print
}
