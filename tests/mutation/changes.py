"""What is changed in a source: every operator, constant, condition and statement, one at a time.

Each change can stand in a text of its own, or all those of the functions of a file in one text: each body then comes once for
each change, and a variable of the process says which one runs. Such a text is compiled once for all of its changes.
"""

import re


def blank_out(text, characters=True):
    """The text with comments, texts, characters and preprocessor lines blanked out, every byte in its place."""
    pattern = re.compile(
        r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|^[ \t]*#(?:[^\n]*\\\n)*[^\n]*',
        re.DOTALL | re.MULTILINE,
    )

    def blank(match):
        spared = match.group().startswith("'") and not characters
        return match.group() if spared else re.sub(r"[^\n]", " ", match.group())

    return pattern.sub(blank, text)


def closing(text, opening, pair="()"):
    """The place of the bracket that closes the one at a place; -1 where it is missing."""
    depth = 0
    for i in range(opening, len(text)):
        depth += {pair[0]: 1, pair[1]: -1}.get(text[i], 0)
        if depth == 0:
            return i
    return -1


# -------------------------------------------------------------------------------------------------------------- Operators

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
    "<<": [">>"],
    ">>": ["<<"],
    "+=": ["-="],
    "-=": ["+="],
    "*=": ["/="],
    "/=": ["*="],
    "|=": ["&="],
    "&=": ["|="],
}
BINARY = re.compile(r"(?<= )(%s)(?=\s)" % "|".join(re.escape(swapped) for swapped in sorted(SWAPS, key=len, reverse=True)))
# What is left out: a negation; a complement, which is no destructor; a sign.
UNARY = re.compile(r"!(?=[\w(*])|(?<![\w:>.])~(?!\w+\(\))(?=[\w(])|(?<=[\s(\[{])-(?=[\w(])")


def operators_of(plain):
    for match in BINARY.finditer(plain):
        for other in SWAPS[match.group()]:
            yield match.start(), match.end(), other
    for match in re.finditer(r"\+\+|--", plain):
        yield match.start(), match.end(), "--" if match.group() == "++" else "++"
    for match in UNARY.finditer(plain):
        yield match.start(), match.end(), ""


# -------------------------------------------------------------------------------------------------------------- Constants


def other_numbers(digits):
    """The next number, and none; in the notation of the first."""
    if digits[:2].lower() == "0x":
        notation, number = "0x%X", int(digits, 16)
    elif len(digits) > 1 and digits[0] == "0":
        notation, number = "0%o", int(digits, 8)
    else:
        notation, number = "%d", int(digits)
    return {notation % (number + 1), "0" if number else "1"}


def other_character(character):
    """The next one, as ends of ranges are what goes wrong; another where that would have to be escaped, or it is itself."""
    if character == "\\0":
        return "\\1"
    following = chr(ord(character) + 1) if len(character) == 1 else "\\"
    return following if following.isprintable() and following not in "'\\" else "x"


def constants_of(text, plain):
    for match in re.finditer(r"(?<![\w.'])(0[xX][0-9a-fA-F]+|\d+)(?=[uUlL]*(?![\w.']))", plain):
        for other in other_numbers(match.group()):
            yield match.start(), match.end(), other
    for match in re.finditer(r"'((?:\\.|[^'\\\n])+)'", blank_out(text, characters=False)):
        yield match.start(1), match.end(1), other_character(match.group(1))
    for match in re.finditer(r"\b(true|false)\b", plain):
        yield match.start(), match.end(), "false" if match.group() == "true" else "true"


# ------------------------------------------------------------------------------------------------------------- Conditions


def start_of_choice(plain, mark):
    """Where the condition starts that the question mark at a place asks for."""
    depth = 0
    for i in range(mark - 1, -1, -1):
        depth += {")": 1, "]": 1, "}": 1, "(": -1, "[": -1, "{": -1}.get(plain[i], 0)
        if depth < 0 or depth == 0 and ends_before_choice(plain, i):
            return i + 1
    return 0


def ends_before_choice(plain, i):
    """Whether what binds less than a choice does ends at a place."""
    char, before, after = plain[i], plain[i - 1 : i], plain[i + 1]
    if char == "=":  # that of an assignment
        return before not in ("=", "!", "<", ">") and after != "="
    if char == ":":  # that of another choice or a label
        return ":" not in (before, after)
    return char in ",;?" or re.search(r"\breturn$", plain[max(0, i - 6) : i + 1]) is not None


def conditions_of(text, plain):
    for match in re.finditer(r"\b(if|while) \(", plain):
        end = closing(plain, match.end() - 1)
        inner = text[match.end() : end]
        if end > 0 and " = " not in blank_out(inner) and ";" not in inner:
            yield match.end(), end, ("!(%s)" if match.group(1) == "if" else "false && (%s)") % inner
    for match in re.finditer(r"\?", plain):
        start = start_of_choice(plain, match.start())
        inner = text[start : match.start()]
        start += len(inner) - len(inner.lstrip())
        yield start, start + len(inner.strip()), "!(%s)" % inner.strip()


# ------------------------------------------------------------------------------------------------------------- Statements


def bodies_of(plain, constants=False):
    """Where the bodies of functions are: (opening brace, behind the closing one). Those that the compiler may run itself are
    among them only when they are asked for."""
    found = []
    head = place = 0  # where what introduces the next brace starts, and where the next brace is looked for
    while True:
        match = re.compile(r"[{};]").search(plain, place)
        if not match:
            return found
        introduction = plain[head : match.start()].strip()
        head = place = match.end()
        if match.group() == "{" and re.search(r"(\)|\b(const|noexcept|override|final))$", introduction):
            head = place = closing(plain, match.start(), "{}") + 1
            if constants or not re.search(r"\bconstexpr\b", introduction):
                found.append((match.start(), place))


def opens_block(plain, brace):
    """Whether statements follow on a brace, rather than values: the formatting leaves a blank before it."""
    before = plain[:brace].rstrip()
    return plain[brace - 1].isspace() and before[-1:] not in ("=", ",", "(", "{") and not before.endswith("return")


def statements_of(plain):
    """All that ends with a semicolon of its own in the bodies of functions, on however many lines: (from, to)."""
    for opening, end in bodies_of(plain, constants=True):
        start = None
        open_brackets = []  # of each, whether statements follow on it, and where the statement started that it is in
        for i in range(opening, end):
            char = plain[i]
            in_block = not open_brackets or open_brackets[-1][0]
            if char in "{([":
                block = i == opening or char == "{" and (in_block and start is None or opens_block(plain, i))
                if not block and in_block and start is None:
                    start = i
                open_brackets.append((block, start))
                start = None if block else start
            elif char in "})]":
                _, start = open_brackets.pop()
                # A block ends its statement, unless it is a function's that is a value.
                if in_block and re.match(r"\s*[;,).(]", plain[i + 1 : end]) is None:
                    start = None
            elif not in_block or char.isspace():
                continue
            elif char == ";":
                if start is not None:
                    yield start, i + 1
                start = None
            elif start is None:
                start = i
            elif char == ":" and ":" not in (plain[i - 1], plain[i + 1]) and re.match(r"(case|default)\b", plain[start:i]):
                start = None


def holds_on(plain, start, end):
    """Whether a statement declares what matters by being there alone: a lock, or an object that nothing names again."""
    text = " ".join(plain[start:end].split())
    match = re.match(r"(?:const )?([\w:]+)(?:<[^;()]*>)? (\w+)[({].*[)}];$", text)
    if not match or match.group(1) in ("return", "delete", "new", "throw", "goto", "else"):
        return False
    if re.search(r"(Lock|Guard|_lock|_guard)$", match.group(1)):
        return True
    rest = "{" + plain[end:]  # of the block, and what follows it
    return re.search(r"\b%s\b" % match.group(2), rest[: closing(rest, 0, "{}")]) is None


def can_be_left_out(text):
    """Whether a statement is a call, an assignment or a deletion; no declaration, and none with others in it."""
    if re.match(r"(return|using|typedef|static_assert|static|const|constexpr|case|default|goto|friend|extern|template)\b", text):
        return False
    if re.match(r"(if|else|for|while|do|switch)\b", text):
        return False
    if re.match(r"(break|continue);|delete(\[\])? ", text):
        return True
    # Two words in a row begin a declaration.
    if re.match(r"[\w:]+(<.*>)?[*&]*\s+[*&]*\w+\s*(=|\(|\{|;|\[)", text):
        return False
    return re.match(r"(\+\+|--|\*)?[\w:~]+(<[^<>]*>)?\s*(\(|\.|->|\[|[-+*/%&|]?=|<<=|>>=|\+\+|--|;)", text) is not None or (
        re.match(r"(\+\+|--|\*|\()", text) is not None
    )


def left_out_of(text, plain):
    for start, end in statements_of(plain):
        if can_be_left_out(" ".join(plain[start:end].split())) or holds_on(plain, start, end):
            yield start, end, ";"
    for match in re.finditer(r"\breturn ([^;{}]+);", plain):
        value = text[match.start(1) : match.end(1)]
        if value not in ("0", "false", "nullptr", "true", "*this") and not value.startswith("["):
            yield match.start(1), match.end(1), "{}"


def changes_of(text):
    """Every change of a source: (from, to, replacement, kind), in order."""
    plain = blank_out(text)
    found = {
        "operator": operators_of(plain),
        "constant": constants_of(text, plain),
        "condition": conditions_of(text, plain),
        "statement": left_out_of(text, plain),
    }
    return sorted({(*change, kind) for kind, changes in found.items() for change in changes})


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

    def concerns_locks(self):
        """Whether it may be that only threads which share something notice."""
        return re.search(r"\b\w*(Lock|Guard)\b|[mM]utex", self.line_text + "\n" + self.old) is not None

    def __str__(self):
        new, old = (re.sub(r"\n\s*", " ", part) for part in (self.new, self.old))
        return "%s:%d: %s: '%s' -> '%s' in: %s" % (self.path, self.line, self.kind, old, new, self.line_text)


# ------------------------------------------------------------------------------------------------ All changes in one text


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
        for start, end in bodies_of(blank_out(text)):
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
