"""What the extension tells a daemon: its configuration query, and the file and command by which it starts one."""
import struct

import pytest

from support.cases import program
from support.engines import EXTENSION, IS_ROOT, Apache, BuiltIn, FastCgi, Fpm
from support.wire import record

PROXY = {"zqs.port": "1", "zqs.proxy_host": "h", "zqs.proxy_port": "2", "zqs.proxy_user": "u", "zqs.proxy_password": "p=q"}


def check_query(site, result, api, apache=False, app="Shop", license="empty key", enabled="true"):
    """Byte for byte, against what the engine says of itself."""
    version, plugins, server = (site.docroot / "environment").read_text().split("\n")
    environment = ["quorbit=Oct 20 2016", f"PHP Version={version}", "Thread Safety=yes", f"module={EXTENSION}",
                   f"Server API={api}"]
    environment += [f"Apache Version={server}", "Apache MPM=event"] if apache else []
    body = record(0x11, app) + record(0x0E, license) + record(0x0C, struct.pack("<Q", 0)) + \
        record(0x0D, f"zqs.agent_enabled={enabled}")
    body += b"".join(record(0x1C, text) for text in environment + [f"Plugin List={plugins}"])
    assert "quorbit(Oct 20 2016)" in plugins and (server != "") == apache
    assert [query.raw for query in result.queries] == [record(0x0A, body)]


@pytest.fixture
def code(site):
    (site.docroot / "environment").touch()
    (site.docroot / "environment").chmod(0o666)
    return program("environment.php")


@pytest.mark.parametrize("ini, expected", [
    ({"zqs.license_key": "999-é", "zqs.app_name": "", "zqs.agent_enabled": "2"},
     {"license": "999-é", "app": "", "enabled": "false"}),
    ({"zqs.license_key": ""}, {"license": "empty key"}),
])
def test_query_of_a_process(site, code, ini, expected):
    check_query(site, site.cgi(code, ini=ini, twin=False), "CGI/FastCGI", **expected)
    check_query(site, site.cli(code, ini=ini, twin=False), "Command Line Interface", **expected)


@pytest.mark.parametrize("kind, api", [
    (BuiltIn, "Built-in HTTP server"), (FastCgi, "CGI/FastCGI"), (Fpm, "FPM/FastCGI"), (Apache, "Apache 2.0 Handler")])
def test_query_of_a_server(site, code, kind, api):
    check_query(site, site.serve(kind).get(code, twin=False), api, apache=kind is Apache)


@pytest.mark.parametrize("ini, changed", [
    ({"zqs.ssl": "2", "zqs.audit_mode": "1", "zqs.daemon_log_level": "debug", "zqs.action_tracer.log_sql": "1"},
     {"zqs.ssl": "FALSE", "zqs.audit_mode": "TRUE", "zqs.daemon_log_level": "debug", "zqs.action_tracer.log_sql": "TRUE"}),
    ({"zqs.host": "collector.test", "zqs.port": "8443"},
     {"zqs.cert_file": None, "zqs.host": "collector.test", "zqs.port": "8443"}),
    ({**PROXY, "zqs.daemon_log_level": ""}, {**PROXY, "zqs.daemon_log_level": ""}),     # as php.ini's OFF without quotes
])
def test_daemon_is_configured_and_started_when_nobody_listens(site, ini, changed):
    """The start command gets the file; what it prints goes nowhere, and the request loses only its packet."""
    started = site.root / "prefix/bin/quorbit"
    started.write_text(f'#!/bin/sh\necho noise; echo noise >&2\necho "$@" >> {site.root}/started\n')
    started.chmod(0o755)
    config = site.logs / ".quorbit.cfg"
    config.write_text("left over\n" * 100)
    config.chmod(0o604)                           # an operator's: it can hold a password
    expected = {
        "zqs.ssl": "TRUE", "zqs.audit_mode": "FALSE", "zqs.daemon_log_level": "INFO", "zqs.action_tracer.log_sql": "FALSE",
        "zqs.agent_log_file_name": site.logs / "php-agent.log", "zqs.daemon_log_file_name": site.logs / "daemon.log",
        "zqs.pid_file": site.logs / "quorbit.pid", "zqs.ipc_listen_file": site.logs / ".quorbit.sock",
        "zqs.cert_file": f"{site.root}/prefix/lib/quorbit/ca-bundle.trust.crt", **changed}
    with site.daemon.absent():
        site.cli('echo "work";', ini={"zqs.agent_log_level": "INFO", **ini})
    assert config.read_text() == "".join(f"{key}={value}\n" for key, value in expected.items() if value is not None)
    assert config.stat().st_mode & 0o777 == 0o604
    assert (site.root / "started").read_text() == f"-f {config}\n"
    assert f"start daemon: {started} -f {config}" in site.log()


def test_a_start_command_that_is_too_long_is_not_run(site):
    with site.daemon.absent():
        site.cli("", ini={"zqs.prefix": "/" + "p" * 500})
    line, = site.logged("start daemon")
    assert line.endswith(f" fail: a command of {501 + len(f'/bin/quorbit -f {site.logs}/.quorbit.cfg')} bytes is longer than 511")


def test_running_daemon_keeps_its_configuration_file(site):
    site.cli("")
    assert not (site.logs / ".quorbit.cfg").exists()


def test_children_of_a_script_inherit_no_descriptor(site):
    """Neither the socket nor the log may leak into programs that a script runs."""
    site.cli('system("ls -l /proc/self/fd | grep -c -e socket -e quorbit");', ini={"zqs.agent_log_level": "DEBUG"})


@pytest.mark.skipif(not IS_ROOT, reason="ownership needs root")
def test_files_are_for_the_web_servers_group(site):
    site.cli("", ini={"zqs.agent_log_level": "INFO"})
    log = (site.logs / "php-agent.log").stat()
    assert (log.st_mode & 0o777, log.st_gid) == (0o666, site.logs.stat().st_gid)
