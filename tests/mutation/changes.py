"""What is changed in a source: every operator, constant, condition and statement, one at a time.

Each change can stand in a text of its own, or all those of the functions of a file in one text: each body then comes once for
each change, and a variable of the process says which one runs. Such a text is compiled once for all of its changes.
"""

import re


def blank_out(text):
    """The text with comments, texts, characters and preprocessor lines blanked out, every byte in its place."""
    pattern = re.compile(
        r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|^[ \t]*#(?:[^\n]*\\\n)*[^\n]*',
        re.DOTALL | re.MULTILINE,
    )
    return pattern.sub(lambda match: re.sub(r"[^\n]", " ", match.group()), text)


# Operators stand between blanks where they are binary: the formatting tells them from templates, pointers and signs.
SWAPS = {
    "==": ["!="],
    "!=": ["=="],
    "<": ["<=", ">"],
    "<=": ["<", ">"],
    ">": [">=", "<"],
    ">=": [">", "<"],
    "&&": ["||"],
    "||": ["&&"],
    "+": ["-"],
    "-": ["+"],
    "*": ["/"],
    "/": ["*"],
    "%": ["*"],
    "&": ["|"],
    "|": ["&"],
    "+=": ["-="],
    "-=": ["+="],
}


def closing(text, opening, pair="()"):
    """The place of the bracket that closes the one at a place; -1 where it is missing."""
    depth = 0
    for i in range(opening, len(text)):
        depth += {pair[0]: 1, pair[1]: -1}.get(text[i], 0)
        if depth == 0:
            return i
    return -1


def is_statement(line):
    """Whether a line is a whole statement that can be left out: a call or an assignment, no declaration."""
    line = line.strip()
    if not line.endswith(";") or line.count("(") != line.count(")") or line.count("{") != line.count("}"):
        return False
    if re.match(r"(return|using|typedef|static_assert|static|const|constexpr|case|default|goto|friend|extern|template)\b", line):
        return False
    if re.match(r"(break|continue);$", line):
        return True
    # Two words in a row begin a declaration.
    if re.match(r"[\w:]+(<.*>)?[*&]*\s+[*&]*\w+\s*(=|\(|\{|;|\[)", line):
        return False
    return re.match(r"(\+\+|--|\*)?[\w:~]+(<[^<>]*>)?\s*(\(|\.|->|\[|=|\+=|-=|\|=|&=|\*=|\+\+|--|;)", line) is not None or (
        re.match(r"(\+\+|--|\*|\()", line) is not None
    )


def changes_of(text):
    """Every change of a source: (from, to, replacement, kind), in order."""
    plain = blank_out(text)
    found = []

    for match in re.finditer(r"(?<= )(==|!=|<=|>=|<|>|&&|\|\||\+=|-=|\+|-|\*|/|%|&|\|)(?= )", plain):
        for other in SWAPS[match.group()]:
            found.append((match.start(), match.end(), other, "operator"))
    for match in re.finditer(r"\+\+|--", plain):
        found.append((match.start(), match.end(), "--" if match.group() == "++" else "++", "operator"))
    for match in re.finditer(r"!(?=[\w(*])", plain):
        found.append((match.start(), match.end(), "", "operator"))
    for match in re.finditer(r"(?<![\w.'])(\d+)(?![\w.'])", plain):
        number = int(match.group())
        for other in {str(number + 1), "0" if number else "1"}:
            found.append((match.start(), match.end(), other, "constant"))
    for match in re.finditer(r"\b(true|false|nullptr)\b", plain):
        other = {"true": "false", "false": "true"}.get(match.group())
        if other:
            found.append((match.start(), match.end(), other, "constant"))
    for match in re.finditer(r"\b(if|while) \(", plain):
        end = closing(plain, match.end() - 1)
        inner = text[match.end() : end]
        if end > 0 and " = " not in blank_out(inner) and ";" not in inner:
            other = "!(%s)" % inner if match.group(1) == "if" else "false && (%s)" % inner
            found.append((match.end(), end, other, "condition"))
    for match in re.finditer(r"\breturn ([^;{}]+);", plain):
        value = text[match.start(1) : match.end(1)]
        if value not in ("0", "false", "nullptr", "true", "*this") and not value.startswith("[" ):
            found.append((match.start(1), match.end(1), "{}", "statement"))
    place = 0
    for line in plain.splitlines(keepends=True):
        if is_statement(line):
            stripped = line.strip()
            start = place + line.index(stripped)
            found.append((start, start + len(stripped), ";", "statement"))
        place += len(line)
    return sorted(set(found))


class Change:
    """One change of one file."""

    def __init__(self, path, text, start, end, other, kind):
        self.path = path
        self.start = start
        self.end = end
        self.old = text[start:end]
        self.new = other
        self.kind = kind
        self.text = text[:start] + other + text[end:]
        self.line = text.count("\n", 0, start) + 1
        first = text.rfind("\n", 0, start) + 1
        self.line_text = text[first : text.find("\n", start)].strip()
        # Which of the lines that read like this one it is.
        self.nth = sum(1 for line in text[:first].splitlines() if line.strip() == self.line_text)
        indent = len(text[first:start]) - len(text[first:start].lstrip())
        self.column = start - first - (indent if text[first:start].strip() else start - first)

    def identity(self):
        """What tells the change from others, wherever its line moves to."""
        return {"file": self.path, "in": self.line_text, "nth": self.nth, "at": self.column, "old": self.old,
                "new": self.new}  # fmt: skip

    def __str__(self):
        new = self.new.replace("\n", " ")
        old = self.old.replace("\n", " ")
        return "%s:%d: %s: '%s' -> '%s' in: %s" % (self.path, self.line, self.kind, old, new, self.line_text)


# ------------------------------------------------------------------------------------------------ All changes in one text


def bodies_of(text):
    """Where the bodies of functions are that can be chosen while a program runs: (opening brace, behind the closing one)."""
    plain = blank_out(text)
    found = []
    head = place = 0  # where what introduces the next brace starts, and where the next brace is looked for
    while True:
        match = re.compile(r"[{};]").search(plain, place)
        if not match:
            return found
        introduction = plain[head : match.start()].strip()
        head = place = match.end()
        # What the compiler runs itself cannot be chosen later.
        if match.group() == "{" and re.search(r"(\)|\b(const|noexcept|override|final))$", introduction):
            if not re.search(r"\bconstexpr\b", introduction):
                head = place = closing(plain, match.start(), "{}") + 1
                found.append((match.start(), place))


class Switched:
    """A text of a source that has many changes in it, each in a copy of the body of its function.

    A body becomes a chain of bodies: with the change whose number kalvorenChange holds, or the one without any change.
    """

    def __init__(self, text, changes, functions):
        """The changes by their numbers; functions of other texts have taken the numbers up to the last one."""
        self.functions = {}  # the number of the function that a change is in, by the change's number
        self.ranges = []  # (first line, last line, the numbers of the changes that an error there speaks of)
        pieces = []
        done = 0
        for start, end in bodies_of(text):
            inside = {n: change for n, change in changes.items() if start < change.start and change.end <= end}
            if not inside:
                continue
            functions += 1
            pieces.append(text[done:start] + "{ kalvorenReached(%d);\n" % functions)
            for number, change in inside.items():
                body = text[start : change.start] + change.new + text[change.end : end]
                self.add(pieces, "if (kalvorenChange == %d) %s\nelse\n" % (number, body), [number])
                self.functions[number] = functions
            self.add(pieces, text[start:end], list(inside))
            pieces.append("\n}")
            done = end
        self.text = "".join(pieces) + text[done:]
        self.last_function = functions

    def add(self, pieces, piece, numbers):
        first = sum(part.count("\n") for part in pieces) + 1
        self.ranges.append((first, first + piece.count("\n"), numbers))
        pieces.append(piece)

    def blamed(self, line):
        """The changes that an error in a line speaks of."""
        return {number for first, last, numbers in self.ranges if first <= line <= last for number in numbers}
