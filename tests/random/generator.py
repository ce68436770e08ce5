"""Random programs from grammar.txt: a seed always gives the same one."""
import random
import re
from pathlib import Path

HERE = Path(__file__).parent
TOKEN = re.compile(r"<(?:(new|my|any):)?([a-z_]+)>")
DEEPEST = 14           # that many entries inside one another, then only first ones
LARGEST = 900          # that many entries in a program, then only first ones
NAMES = {"function": ["plain"], "class": ["Base"], "generator": ["series"], "file": ["none.php"]}
WHOLE = {"program", "file", "statements", "declarations", "ending"}    # however large a program is by then
SECTION, ENTRY, MORE = re.compile(r"\[([a-z_]+)\]"), re.compile(r"(\d+)\| (.*)"), re.compile(r" \| (.*)")


def read_grammar(path=HERE / "grammar.txt"):
    """{section: ([weight, ...], [text, ...])}"""
    sections = {}
    for number, line in enumerate(path.read_text().splitlines(), 1):
        if not line or line.startswith("#"):
            continue
        if start := SECTION.fullmatch(line):
            weights, texts = sections.setdefault(start[1], ([], []))
        elif entry := ENTRY.fullmatch(line):
            weights.append(int(entry[1]))
            texts.append(entry[2])
        elif more := MORE.fullmatch(line):
            texts[-1] += "\n" + more[1]
        else:
            raise ValueError(f"{path.name}:{number}: neither section nor entry")
    return sections


GRAMMAR = read_grammar()


class Generator:
    def __init__(self, seed):
        self.random = random.Random(seed)
        self.names = {kind: list(names) for kind, names in NAMES.items()}
        self.count = self.entries = 0

    def expand(self, section, depth):
        weights, texts = GRAMMAR[section]
        self.entries += 1
        shallow = depth < DEEPEST and self.entries < LARGEST
        text = self.random.choices(texts, weights)[0] if shallow or section in WHOLE else texts[0]
        mine = {}
        lines = [self.fill(line, mine, depth) for line in text.split("\n")]
        for kind, name in mine.items():
            self.names.setdefault(kind, []).append(name)
        return "\n".join(lines)

    def fill(self, line, mine, depth):
        """A line of an entry with its tokens replaced; `mine` are the names that the entry declares."""
        indent = line[:len(line) - len(line.lstrip())]

        def value(token):
            how, what = token.groups()
            if how == "new":
                self.count += 1
                mine[what] = f"{what}{self.count}"
            if how == "any":
                return self.random.choice(self.names[what])
            return mine[what] if how else self.expand(what, depth + 1).replace("\n", "\n" + indent)

        return TOKEN.sub(value, line)


def program(seed):
    """{file name: text}; main.php is the one to run, which includes the others."""
    generator = Generator(seed)
    files = {}
    for part in ("part1.php", "part2.php"):
        files[part] = generator.expand("file", DEEPEST - 6) + "\n"
        generator.names.setdefault("file", []).append(part)
    generator.entries = 0
    return {"main.php": generator.expand("program", 0) + "\n", **files}
