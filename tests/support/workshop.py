"""A stand-in for the engine's source, which builds in a moment, and for the npm that fetches it."""
import hashlib
import io
import os
import shutil
import signal
import subprocess
import tarfile

from support.engines import PROJECT

TIMEOUT_S = 60

# What `configure` and `make` do in the stand-in: the seven files of an engine, each a script or a text.
CONFIGURE = """#!/bin/sh
for word; do case "$word" in --prefix=*) prefix=${word#--prefix=};; esac; done
printf 'all:\\n\\tmkdir -p libs && echo module >libs/libphp5.so\\n\\t@BUILD@\\n' >Makefile
printf 'install:\\n\\tset -e; r=$(INSTALL_ROOT)'$prefix'; mkdir -p $$r/bin $$r/sbin $$r/lib; \\\\\\n' >>Makefile
printf '\\tfor f in bin/php bin/php-cgi bin/php-config bin/phpize sbin/php-fpm lib/libphp5.so; do ' >>Makefile
printf 'printf "#!/bin/sh\\\\necho PHP Extension Build =\\\\\\\\> @BUILD_ID@\\\\n" >$$r/$$f; chmod 755 $$r/$$f; done\\n' >>Makefile
"""


def archive(path, members):
    with tarfile.open(path, "w:gz") as out:
        for name, content, mode in members:
            entry = tarfile.TarInfo(name)
            entry.size, entry.mode = len(content), mode
            out.addfile(entry, io.BytesIO(content))
    return path.read_bytes()


class Workshop:
    """A copy of engine/ whose recipe names the stand-in source, and an empty cache."""

    def __init__(self, folder, build="true", build_id="API20131226,TS", npm=None):
        self.cache, self.link, self.count = folder / "cache", folder / "link", folder / "fetched"
        self.scripts = folder / "engine"
        shutil.copytree(PROJECT / "engine", self.scripts)
        configure = CONFIGURE.replace("@BUILD@", build).replace("@BUILD_ID@", build_id).encode()
        source = archive(folder / "source", [("php/configure", configure, 0o755)])
        recipe = self.scripts / "recipe.sh"
        lines = [line for line in recipe.read_text().splitlines() if not line.startswith("SOURCE_SHA256")]
        recipe.write_text("\n".join(lines + [f'SOURCE_SHA256="{hashlib.sha256(source).hexdigest()}"', ""]))
        archive(folder / "package.tgz", [("package/deps/php-5.6.15.tar.gz", source, 0o644)])
        tools = folder / "tools"
        tools.mkdir()
        command = npm or f"cp {folder}/package.tgz ./source.tgz"
        (tools / "npm").write_text(f"#!/bin/sh\necho fetched >>{self.count}\n{command}\n")
        (tools / "npm").chmod(0o755)
        self.environment = {"PATH": f"{tools}:{os.environ['PATH']}", "HOME": str(folder), "QUORBIT_CACHE": str(self.cache)}

    def start(self):
        return subprocess.Popen([self.scripts / "find", self.link], env=self.environment, text=True,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, start_new_session=True,
                                preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))   # ignored in background jobs

    def find(self):
        process = self.start()
        output, _ = process.communicate(timeout=TIMEOUT_S)
        return process.returncode, output

    def fetches(self):
        return len(self.count.read_text().split()) if self.count.exists() else 0

    def engines(self):
        return [path for path in self.cache.glob("engine-*") if path.is_dir()]
