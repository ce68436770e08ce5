"""Cuts a program down: statements are taken out as long as it still does what is looked for."""


def statements(lines):
    """(first, last) of every statement, those with a body first; a body is what is indented, a `}` belongs to what it ends."""
    def indent(line):
        return len(line) - len(line.lstrip())

    found = []
    for first, line in enumerate(lines):
        last = first
        while last + 1 < len(lines) and (indent(lines[last + 1]) > indent(line) or
                                         indent(lines[last + 1]) == indent(line) and lines[last + 1].lstrip().startswith("}")):
            last += 1
        if not line.lstrip().startswith("}"):
            found.append((first, last))
    return sorted(found, key=lambda pair: pair[0] - pair[1])


def shrink(text, still, attempts=400):
    """The shortest text found of which `still(text)` is true."""
    lines, changed = text.split("\n"), True
    while changed and attempts > 0:
        changed, gone = False, set()
        for first, last in statements(lines):
            if attempts <= 0 or not gone.isdisjoint(range(first, last + 1)):
                continue
            attempts -= 1
            without = gone | set(range(first, last + 1))
            if still("\n".join(line for number, line in enumerate(lines) if number not in without)):
                gone, changed = without, True
        lines = [line for number, line in enumerate(lines) if number not in gone]
    return "\n".join(lines)
