"""Pretty-printers for gdb: Kalvoren's values as what they mean.

The system's gdb loads this file by itself with the library of the Debian packages. A library with another prefix than /usr
has it beside it, under the library's name and "-gdb.py"; gdb loads it from there once the directory is in its auto-load
safe-path. By hand: `source kalvoren_gdb.py`. The printers read the objects' fields alone and call nothing in the program, so
they work on core files and through remote stubs.
"""

import datetime

import gdb
import gdb.printing


def text_of(string):
    """The text of a KString: as many bytes as its length says, NULs included."""
    length = int(string["m_nLen"])
    if int(string["m_pszString"]) == 0 or length <= 0:
        return ""
    data = gdb.selected_inferior().read_memory(int(string["m_pszString"]), length)
    return bytes(data).decode("utf-8", "backslashreplace")


def quoted(text):
    """A text in quotes, with what would break a line escaped."""
    for character, escape in (("\\", "\\\\"), ('"', '\\"'), ("\n", "\\n"), ("\r", "\\r"), ("\t", "\\t"), ("\0", "\\000")):
        text = text.replace(character, escape)
    return '"' + text + '"'


def name_of(enumerator):
    """The bare name of an enumerator; its number where it has none."""
    text = str(enumerator)
    return text.rsplit("::", 1)[-1] if "::" in text or text.isidentifier() else str(int(enumerator))


def zone_of(time):
    """A zone as hours and minutes east of UTC, daylight saving included; empty for UTC."""
    quarters = int(time["gmt15Min"]) + int(time["dst15Min"])
    return " (UTC+%d:%02d)" % (quarters // 4, quarters % 4 * 15) if quarters else ""


class StringPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        return quoted(text_of(self.value))


class PathPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        kind = name_of(self.value["m_eType"])
        suffix = "" if kind == "TYPE_NONE" else " " + kind
        return quoted(text_of(self.value["m_Path"])) + suffix


class ListPrinter:
    """The elements, by walking the chain: at most as many as the list counts."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return "%d elements" % int(self.value["m_nCount"])

    def children(self):
        element = self.value["m_pHead"]
        for index in range(int(self.value["m_nCount"])):
            if int(element) == 0:
                return
            yield "[%d]" % index, element["m_Value"]
            element = element["m_pNext"]

    def display_hint(self):
        return "array"


class TimePrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        moment = datetime.datetime(1970, 1, 1) + datetime.timedelta(seconds=int(self.value["sec"]))
        return "%s.%06d UTC%s" % (moment.strftime("%Y-%m-%d %H:%M:%S"), int(self.value["usec"]), zone_of(self.value))


class BlockPrinter:
    """A memory block: its size and its first bytes."""

    SHOWN = 32

    def __init__(self, value):
        self.value = value

    def to_string(self):
        size = int(self.value["m_nSize"])
        if size <= 0 or int(self.value["m_pBuf"]) == 0:
            return "%d bytes" % size
        shown = min(size, self.SHOWN)
        data = bytes(gdb.selected_inferior().read_memory(int(self.value["m_pBuf"]), shown))
        return "%d bytes: %s%s" % (size, data.hex(" "), " ..." if size > shown else "")


class NodePrinter:
    """A property node: its type and text, and its children."""

    def __init__(self, value):
        self.value = value

    def to_string(self):
        return "%s %s" % (name_of(self.value["m_eType"]), quoted(text_of(self.value["m_Text"])))

    def children(self):
        for name, pointer in ListPrinter(self.value["m_Children"]).children():
            yield name, pointer.dereference() if int(pointer) != 0 else pointer


class EndpointPrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        words = [name_of(self.value[field]) for field in ("m_eDomain", "m_eProtocol", "m_eCasting")]
        return "%s %s:%d" % (" ".join(words), text_of(self.value["m_Address"]), int(self.value["m_nPort"]))


class MessagePrinter:
    def __init__(self, value):
        self.value = value

    def to_string(self):
        payload = "no payload"
        if int(self.value["mData"]) != 0:
            payload = "%d bytes" % int(self.value["mSize"])
        return "%s, %s, %s" % (quoted(text_of(self.value["mText1"])), quoted(text_of(self.value["mText2"])), payload)


def build():
    printers = gdb.printing.RegexpCollectionPrettyPrinter("kalvoren")
    printers.add_printer("KString", "^KString$", StringPrinter)
    printers.add_printer("KPath", "^KPath$", PathPrinter)
    printers.add_printer("KList", "^KList<.*>$", ListPrinter)
    printers.add_printer("KTime", "^KTime$", TimePrinter)
    printers.add_printer("KMem", "^KMem$", BlockPrinter)
    printers.add_printer("KPropertyNode", "^KPropertyNode$", NodePrinter)
    printers.add_printer("KNetInfo", "^KNetInfo$", EndpointPrinter)
    printers.add_printer("KMessage", "^KMessage$", MessagePrinter)
    return printers


gdb.printing.register_pretty_printer(gdb.current_objfile(), build(), replace=True)
