"""A receiver of OTLP that reads what comes by OpenTelemetry's own definitions."""
import base64
import json
import subprocess
import threading
import time

import pytest

from support.clickhouse import free_ports
from support.databases import die_with_parent
from support.engines import PROJECT

READER = PROJECT / "build/otlp/reader"


@pytest.fixture(scope="session")
def definitions():
    if not (READER / "node_modules/@opentelemetry/otlp-transformer").exists():
        READER.mkdir(parents=True, exist_ok=True)
        subprocess.run(["npm", "install", "--prefix", READER, "--ignore-scripts", "--no-audit", "--no-fund", "--loglevel=error",
                        "@opentelemetry/otlp-transformer@0.57.2"], check=True, timeout=300)
    return READER


class Receiver:
    def __init__(self, root, *statuses, port=None):
        self.port = port or free_ports(1)[0]
        self.process = subprocess.Popen(["node", PROJECT / "tests/support/otlp_receiver.mjs", root, str(self.port), *map(str, statuses)],
                                        stdout=subprocess.PIPE, text=True, preexec_fn=die_with_parent)
        assert self.process.stdout.readline() == "{}\n"
        self.received = []
        threading.Thread(target=self.read, daemon=True).start()

    def read(self):
        for line in self.process.stdout:
            self.received.append({**json.loads(line), "at": time.monotonic()})

    def bodies(self, path="/v1/traces", status=200):
        return [one for one in list(self.received) if (one["path"], one["status"]) == (path, status)]

    def spans(self):
        """Those that were taken, with the attributes of their resource."""
        return [(attributes(part["resource"]), span) for one in self.bodies() for part in one["message"]["resourceSpans"]
                for scope in part["scopeSpans"] for span in scope["spans"]]

    def close(self):
        self.process.terminate()
        self.process.wait(10)


def attributes(holder):
    return {one["key"]: one["value"].get("stringValue", one["value"].get("intValue")) for one in holder["attributes"]}


def hexadecimal(text, format):
    return text if format == "json" else base64.b64decode(text).hex()
