"""A host with two applications, as operators have them: a shop on PDO and a WordPress, on MariaDB, FPM and nginx."""
import json
import re
import shutil
import subprocess
import tempfile
import urllib.error
import urllib.request
from pathlib import Path

from support.databases import die_with_parent
from support.engines import ENGINE, IS_ROOT, PROJECT, SCRIPTS, WEB_USER, Fpm, Http
from support.local_daemon import QUORBIT

SETTINGS = """[*]
zqs.resource.enabled = 0
zqs.action_tracer.action_threshold = 30
zqs.action_tracer.stack_trace_threshold = 1
zqs.action_tracer.slow_sql_threshold = 1
zqs.action_tracer.explain_enabled = 1
zqs.action_tracer.explain_threshold = 1
zqs.transaction_tracer.enabled = 1
zqs.vantorIdSecret = host|1
"""
PARAMETERS = {"SCRIPT_FILENAME": "$document_root$fastcgi_script_name", "SCRIPT_NAME": "$fastcgi_script_name", "REQUEST_URI": "$request_uri",
              "QUERY_STRING": "$query_string", "REQUEST_METHOD": "$request_method", "SERVER_PROTOCOL": "$server_protocol",
              "SERVER_NAME": "$host", "SERVER_PORT": "$server_port", "REMOTE_ADDR": "$remote_addr", "HTTP_X_QUEUE_START": "t=$msec"}


def unpacked(package):
    """The folder of one of Debian's packages, unpacked and not installed."""
    folder = PROJECT / "build/debian" / package
    if not (folder / "usr").exists():
        with tempfile.TemporaryDirectory() as place:
            fetch = ["apt-get", "-qq", "-o", "APT::Sandbox::User=root", "download", package]
            if subprocess.run(fetch, cwd=place).returncode:
                subprocess.run(["apt-get", "-qq", "update"], check=True)
                subprocess.run(fetch, cwd=place, check=True)
            shutil.rmtree(folder, ignore_errors=True)
            file, = Path(place).glob("*.deb")
            folder.parent.mkdir(parents=True, exist_ok=True)
            subprocess.run(["dpkg-deb", "-x", file, folder], check=True)
    return folder


def place_blog(docroot):
    """Debian's WordPress as docroot/blog; it asks for PHP 5.6.20, and runs with less."""
    shutil.copytree(SCRIPTS / "questions/blog", docroot / "blog")
    unused = shutil.ignore_patterns("*.js", "*.css", "*.svg", "*.png", "*.gif", "*.woff2", "ID3", "wp-config.php", ".htaccess")
    shutil.copytree(unpacked("wordpress") / "usr/share/wordpress", docroot / "blog", dirs_exist_ok=True, ignore=unused)
    version = docroot / "blog/wp-includes/version.php"
    version.write_text(version.read_text().replace("'5.6.20'", "'5.6.0'"))


def install(docroot, mariadb, script, host):
    """Fills the application's tables; it is to be reached under this host."""
    (docroot / "database.php").write_text(f"<?php return '{mariadb.socket}';")
    subprocess.run([ENGINE / "bin/php", "-n", "-d", "date.timezone=UTC", "-d", "sendmail_path=/bin/true", docroot / script, host], check=True,
                   stdout=subprocess.PIPE, timeout=60, preexec_fn=die_with_parent)


class Pools(Fpm):
    """A pool for each application, one of them without the agent."""
    pools = {"shop": "php_admin_value[zqs.app_name] = Shop", "blog": "php_admin_value[zqs.app_name] = Blog",
             "old": "php_admin_value[zqs.agent_enabled] = 0"}

    def listens(self, pool):
        return self.site.root / f"{pool}.sock"

    def command(self):
        self.socket = str(self.listens("shop"))
        config = self.site.root / "fpm.conf"
        owner = f"user = {WEB_USER}\ngroup = {WEB_USER}\nlisten.owner = {WEB_USER}\n" if IS_ROOT else ""
        config.write_text(f"[global]\nerror_log = {self.site.root}/fpm.log\ndaemonize = no\n" + "".join(
            f"[{name}]\nlisten = {self.listens(name)}\n{owner}pm = static\npm.max_children = {1 if name == 'old' else 2}\n{line}\n"
            for name, line in self.pools.items()))
        return [ENGINE / "sbin/php-fpm", "-c", self.ini, "-y", config, "-F"] + (["-R"] if IS_ROOT else [])


class Nginx(Http):
    def command(self):
        root, config = self.site.root, self.site.root / "nginx.conf"
        parameters = "".join(f"fastcgi_param {name} {value};" for name, value in PARAMETERS.items())
        temporary = "".join(f"{name}_temp_path {root}/nginx;" for name in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
        pools = "".join(f"location /{pool}/ {{ fastcgi_index index.php; fastcgi_pass unix:{root}/{pool}.sock; }}" for pool in Pools.pools)
        config.write_text(f"daemon off; pid {root}/nginx.pid; error_log {root}/nginx.log; worker_processes 1; events {{}} "
                          + (f"user {WEB_USER}; " if IS_ROOT else "")
                          + f"http {{ access_log {root}/access.log; {temporary} {parameters} server {{ listen 127.0.0.1:{self.port}; "
                          f"root {self.site.docroot}; {pools} }} }}\n")
        return ["/usr/sbin/nginx", "-p", root, "-c", config]


class Host:
    def __init__(self, real, mariadb):
        self.real, site = real, real.site
        self.database = mariadb
        (site.logs / "applications.conf").write_text(SETTINGS)
        (site.logs / "php-agent.log").touch()
        (site.logs / "php-agent.log").chmod(0o666)
        for part in ("shop", "old"):
            shutil.copytree(SCRIPTS / "questions" / part, site.docroot / part)
        place_blog(site.docroot)
        ini = site.ini_file(True, {"error_log": site.root / "php.log"})
        self.fpm, self.nginx = Pools(site, ini, True), Nginx(site, ini, True)
        site.servers += [self.fpm, self.nginx]
        self.fpm.start()
        self.nginx.start()
        for step in ("shop/install.php", "blog/install.php"):
            install(site.docroot, mariadb, step, f"127.0.0.1:{self.nginx.port}")

    def get(self, path):
        """The answer: what the page has measured of itself, in ms, by name."""
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{self.nginx.port}{path}", timeout=30) as answer:
                text = answer.read().decode()
        except urllib.error.HTTPError as failure:
            text = failure.read().decode()
        told = re.search("<!--({.*})-->", text)
        return json.loads(told[1]) if told else {}

    def ask(self, *words):
        """Exit status, and what a pipe gets."""
        done = subprocess.run([QUORBIT, *words, "--root", self.real.site.root], capture_output=True, text=True, timeout=60)
        return done.returncode, done.stdout
