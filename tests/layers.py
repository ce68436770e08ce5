#!/usr/bin/python3
"""Calls and includes go one way, by the tables of layers in docs/architecture.md: no module names one of a layer above its
own, and no modules name each other in a circle. Calls are read from the objects of a finished build, so that what the
compiler has inlined does not count. And the table of the daemon's parts names every file, and none that is not there."""
import re
import subprocess
import sys
from fnmatch import fnmatch
from graphlib import CycleError, TopologicalSorter
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent


def layers_of(folder):
    """Module -> number of its layer, the lowest first, from the table that follows the words "Layers of `FOLDER/`"."""
    table = re.search(rf"Layers of `{folder}/`.*?```\n(.*?)```", (PROJECT / "docs/architecture.md").read_text(), re.S)
    return {name: number for number, line in enumerate(reversed(table[1].splitlines())) for name in line.split()}


def calls(objects, module_of):
    """Pairs (module, module it calls): {symbols}"""
    home, wanted = {}, []
    for path in objects:
        for line in subprocess.check_output(["nm", "-C", path], text=True).splitlines():
            kind, symbol = line[17], line[19:]
            if kind == "U":
                wanted.append((module_of(path), symbol))
            elif kind.isupper() and kind not in "WV":
                home[symbol] = module_of(path)
    pairs = {}
    for module, symbol in wanted:
        if symbol in home:
            pairs.setdefault((module, home[symbol]), set()).add(symbol)
    return pairs


def includes(folder, module_of):
    pairs = {}
    for path in (PROJECT / folder).rglob("*.h"):
        for name in re.findall(r'^#include "([\w/]+\.h)"', path.read_text(), re.M):
            if (PROJECT / folder / name).exists():
                pairs.setdefault((module_of(path), module_of(PROJECT / folder / name)), set()).add(f"#include {name}")
    return pairs


def faults(pairs, layers):
    graph = {}
    for (source, target), names in sorted(pairs.items()):
        for module in {source, target} - layers.keys():
            yield f"{module} is in no layer of docs/architecture.md"
        if source != target:
            graph.setdefault(source, set()).add(target)
        if layers.get(source, 0) < layers.get(target, 0):
            yield f"{source} is below {target}, but names {', '.join(sorted(names))}"
    try:
        TopologicalSorter(graph).prepare()
    except CycleError as circle:
        yield "a circle: " + " -> ".join(circle.args[1])


def unnamed_parts(table):
    """`base/{account,clock}` and `ask/manual*` stand for several files."""
    patterns = []
    for name in re.findall(r"`(\w+/[^`]+)`", "".join(re.findall(r"^\| (.*?) \|", table, re.M))):
        folder, _, list_of = name.partition("/")
        patterns += [f"{folder}/{one}" for one in list_of.strip("{}").split(",")]
    parts = {str(path.relative_to(PROJECT / "daemon").with_suffix("")) for path in (PROJECT / "daemon").glob("*/*")}
    yield from (f"daemon/{part} is in no row of docs/architecture.md" for part in sorted(parts)
                if not any(fnmatch(part, pattern) for pattern in patterns))
    yield from (f"docs/architecture.md names {pattern}, which is not there" for pattern in patterns
                if not any(fnmatch(part, pattern) for part in parts))


def extension_module(path):
    return re.match(r"\w+", Path(path).name)[0]


def daemon_module(path):
    folder = Path(path).parent.name
    return "main" if folder == "daemon" else folder


found = []
for name, target, module_of in (("ext", "zqprof_objects", extension_module), ("daemon", "quorbit_daemon", daemon_module)):
    folder = PROJECT / f"build/CMakeFiles/{target}.dir"
    objects = sorted(path for path in (folder / name).rglob("*.o") if (PROJECT / path.relative_to(folder)).with_suffix("").exists())
    if not objects:
        sys.exit(f"{name}/ is not built")
    for pairs in (calls(objects, module_of), includes(name, module_of)):
        found += faults(pairs, layers_of(name))
architecture = (PROJECT / "docs/architecture.md").read_text()
found += unnamed_parts(architecture[architecture.index("## The daemon"):architecture.index("### Questions and answers")])
print("\n".join(dict.fromkeys(found)) or "calls and includes go one way")
sys.exit(bool(found))
