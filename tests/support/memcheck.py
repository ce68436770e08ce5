"""Valgrind's report, read for what the agent has done."""
import re
import xml.etree.ElementTree as xml

# Between malloc and whoever asked for the memory stand libc and the engine's containers.
ALLOCATORS = re.compile(r"(m|c|re)alloc|strn?dup|_?(e|safe_e|ec|ere|estr)\w*(alloc|dup)|_?zend_(hash|llist|str)_\w+|[sv]*spprintf|xbuf\w*")


def asked_by(frames):
    """The object whose code asked for lost memory."""
    for frame in frames:
        if frame.findtext("obj", "").endswith("zqprof.so") or not ALLOCATORS.fullmatch(frame.findtext("fn") or ""):
            return frame.findtext("obj", "")
    return ""


def faults(report):
    """What is ours: every invalid access, and the leaks that the agent asked for. `exit` leaves blocks of the engine unfreed."""
    found = []
    for error in xml.parse(report).getroot().iter("error"):
        frames = error.find("stack").findall("frame")
        kind = error.findtext("kind")
        if not kind.startswith("Leak_") or asked_by(frames).endswith("zqprof.so"):
            found.append(kind + " " + " < ".join(frame.findtext("fn") or "?" for frame in frames[:8]))
    return found
