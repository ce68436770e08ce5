"""What php/index.php must answer for each number, and what the packet about it must tell."""
HEAD = b"<html><head><title>shop</title></head><body>"
BODIES = {1: b"50", 2: b"OutOfStock gone", 3: b"190", 4: b"INNER", 5: b"anything2", 6: b"part", 7: b"slow", 8: b"left",
          9: b"", 10: b"", 11: b"not here", 12: b"3", 13: b"now and later", 14: b"fresh"}
ERRORS = {9: "OutOfStock", 10: "RUNTIME_ERROR", 11: "HTTP_ERROR"}
STATUS = {11: 404}


def answer(number):
    """(status, body) of a page; those that end in an error have printed their beginning."""
    kind = number % 16
    return STATUS.get(kind, 200), HEAD + f"{number}: ".encode() + BODIES.get(kind, b"14")


def told(metric, number):
    """What is wrong with a packet about a page, or None."""
    kind = number % 16
    error = metric.error["class"] if metric.error else None
    if metric.action != "WebAction/URI/index.php":
        return f"action {metric.action}"
    if error != ERRORS.get(kind):
        return f"error {metric.error}"
    if kind == 7 and not metric.trace:
        return f"no trace of {metric.duration_ms} ms, components {metric.components}"
    return None
