"""The PHP programs below tests/e2e/php. A file is one program, or a table of them, each under a line `# --- name => what is expected`;
what stands above the first of these lines belongs to all."""
import re

import pytest

from support.engines import SCRIPTS


def program(name):
    """As Site takes it: without the opening tag, but with every line at its number."""
    return (SCRIPTS / name).read_text().removeprefix("<?php")


def line_of(code, text):
    """The number of the one line that holds `text`."""
    found, = [number for number, line in enumerate(code.split("\n"), 1) if text in line]
    return found


def cases(name):
    """Parameters (program, expectation); where nothing is expected it is None."""
    common, *parts = re.split("^# --- (.+) => (.+)\n", program(name), flags=re.M)
    return [pytest.param(common + code, None if expected == "nothing" else expected, id=title)
            for title, expected, code in zip(parts[::3], parts[1::3], parts[2::3])]
