"""What valgrind reported in a folder of XML files, by the same judgement as the end-to-end test of memory: every invalid
access, and the leaks that the agent asked for. What came from the engine's allocator lives no longer than its request, and
where a bailout leaves functions early that is who frees it: such blocks are only counted.

valgrind.py FOLDER"""
import re
import sys
import xml.etree.ElementTree as xml
from collections import Counter
from pathlib import Path

from support import memcheck

REQUEST_MEMORY = re.compile(r"^Leak_.*? < _?(e|safe_e)\w*(alloc|dup) < ")


def main():
    found, left, processes, cut = Counter(), 0, 0, 0
    for report in Path(sys.argv[1]).glob("*.xml"):
        try:
            faults = memcheck.faults(report)
            lasting = [fault for fault in faults if not REQUEST_MEMORY.search(fault)]
            left += len(faults) - len(lasting)
            found.update(lasting)
            processes += 1
        except xml.ParseError:
            cut += 1                   # killed, or replaced by another program, before it could end its report
    for fault, count in found.most_common(20):
        print(f"{count} times {fault}")
    print(f"{processes} processes watched to their end, {cut} not; {left} blocks left to the end of a request; "
          f"{sum(found.values())} reports")
    return 1 if found or not processes else 0


if __name__ == "__main__":
    sys.exit(main())
