"""`quorbit status` beside real servers: each of their processes is accounted for, and what keeps one from reporting is told."""
import json
import os
import pwd
import shutil

import pytest

from support.engines import EXTENSION, IS_ROOT, WEB_USER, Apache, Fpm


class TwoPools(Fpm):
    """FPM with a second pool, of an account that may not enter the folder, in which nothing is monitored."""

    def command(self):
        words = super().command()
        config = self.site.root / f"{self.name}.conf"
        config.write_text(config.read_text() + f"[quiet]\nlisten = {self.socket}2\nuser = {WEB_USER}\ngroup = {WEB_USER}\npm = static\n"
                          "pm.max_children = 1\nphp_admin_value[zqs.agent_enabled] = 0\n"
                          f"[client]\nlisten = {self.socket}3\nuser = nobody\ngroup = nogroup\npm = static\npm.max_children = 1\n")
        return words


def rows_of(server, state):
    """{"SERVER pool": row} of those processes that the server has."""
    def ours(pid):
        try:
            return pid == server.process.pid or int(open(f"/proc/{pid}/stat").read().rpartition(")")[2].split()[1]) == server.process.pid
        except OSError:
            return False
    rows = {}
    for row in state["php"]:
        mine = [pid for pid in row["processes"] if ours(pid)]
        if mine:
            rows[f'{row["server"]} {"master" if row["manages"] else row["pool"]}'.strip()] = {**row, "pids": mine, "processes": len(mine)}
    return rows


def findings_about(state, pid):
    return {finding["check"] for finding in state["findings"] if pid in finding["processes"]}


@pytest.mark.skipif(not IS_ROOT, reason="pools of other accounts need root")
def test_every_process_of_fpm_and_apache_is_accounted_for(real):
    site = real.site
    os.chown(real.logs, 0, pwd.getpwnam(WEB_USER).pw_gid)
    real.logs.chmod(0o2750)
    (real.logs / "php-agent.log").touch()
    (real.logs / "php-agent.log").chmod(0o666)
    site.extension = site.root / "zqprof.so"
    shutil.copy(EXTENSION, site.extension)
    fpm, apache = TwoPools(site, site.ini_file(), True), Apache(site, site.ini_file(), True)
    bare = Fpm(site, site.ini_file(False), False)
    for server in (fpm, apache, bare):
        site.servers.append(server)
        server.start()
    for server in (fpm, apache):
        server.request(site.script("echo 1;", "page.php"), "/page.php")
    real.reports(2, "page.php")

    state = json.loads(real.command("status", "--json"))
    assert not state["good"] and state["daemon"]["answers"]
    found = {name: (row["account"], row["processes"], row["agent"], row["applications"], row["reaches_socket"])
             for server in (fpm, apache) for name, row in rows_of(server, state).items()}
    assert found == {
        "FPM master": ("root", 1, "loaded", [], True), "FPM www": (WEB_USER, 2, "loaded", ["Shop"], True),
        "FPM quiet": (WEB_USER, 1, "off", [], True), "FPM client": ("nobody", 1, "loaded", [], False),
        "Apache master": ("root", 1, "loaded", [], True), "Apache": (WEB_USER, 1, "loaded", ["Shop"], True)}
    assert {row["agent"] for row in rows_of(bare, state).values()} == {"missing"}
    told = {check: finding["what"] for finding in state["findings"] for check in [finding["check"]]}
    assert "account nobody is not in group www-data: it can reach neither the socket nor the log" in told["no_access"]
    assert "FPM pool quiet" in told["agent_off"] and findings_about(state, bare.process.pid) == {"agent_missing"}

    fresh = site.root / "new.so"
    shutil.copy(site.extension, fresh)
    fresh.rename(site.extension)
    state = json.loads(real.command("status", "--json"))
    assert {row["agent"] for row in rows_of(apache, state).values()} == {"old"}
    assert findings_about(state, apache.process.pid) == {"agent_old"}
    assert {"agent_old", "no_access"} <= findings_about(state, rows_of(fpm, state)["FPM client"]["pids"][0])
    text = real.command("status")
    assert "AGENT" in text and "CHECK  Apache" in text and "(master)" in text
