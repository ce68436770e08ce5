"""docs/install.md's other two ways, typed on a Debian that has nothing but a PHP 5.6 with its headers: make install and
phpize, and what make uninstall leaves. What `make` has compiled here is not compiled again there, as long as
all that it needs is there too; phpize compiles the extension anew."""
import re
import shutil
from pathlib import Path

from support.bare_root import DAEMONS_OWN, SYSTEMS, typed
from support.engines import PROJECT
from support.fake_daemon import wait_until

BUILT = ("engine", "tests", "fuzz", "sanitize", "package", "bench", "wire", "debian", "bare-root.tar")


def unused(folder, names):
    return [name for name in names if name == ".git" or name in BUILT and Path(folder) == PROJECT / "build"]


def check_out(bare):
    """This checkout at the same path, with what is built: CMake goes by paths, make by times."""
    place = Path(f"{bare.folder}{PROJECT}")
    shutil.copytree(PROJECT, place, symlinks=True, ignore=unused)
    cache = place / "build/CMakeCache.txt"
    cache.write_text(re.sub(r"^(CMAKE_\w+_COMPILER_LAUNCHER:\w+=).*$", r"\1", cache.read_text(), flags=re.M))


def ours(bare):
    return {path for path in bare.files() if not path.startswith(str(PROJECT))}


def test_both_ways_from_source_lead_to_an_action_and_uninstalling_back(bare):
    bare.host_php(headers=True)
    check_out(bare)
    here = lambda line: bare.type(f"cd {PROJECT} && {line.replace('sudo ', '')}")  # noqa: E731
    tools, build, install = typed("docs/install.md", "Build and install")
    more_tools, phpize = typed("docs/install.md", "Build and install", 2)
    for line in (tools, more_tools):
        here(line.replace("apt ", "apt-get -y --no-install-recommends "))
    here(build)
    before = ours(bare)
    named = re.findall(r"^(/\S+?)/?$", here(install), re.M)
    placed = {path for path in named if not path.startswith((str(PROJECT), *SYSTEMS))}
    folders = {str(folder) for path in placed for folder in Path(path).parents}
    assert placed <= ours(bare) - before <= placed | folders
    bare.type("quorbit setup enable --app Shop")
    for way in (None, phpize):
        if way:
            here("rm $(php-config --extension-dir)/zqprof.so")
            here(f"export MAKEFLAGS=-j2; {way}")
        bare.serve()
        assert b"page" in bare.get()
        assert "Nothing is amiss." in bare.type("quorbit doctor")
        wait_until(lambda: "index.php" in bare.type("quorbit show --app Shop"), "the action")

    bare.type("quorbit setup disable")
    bare.serve()
    assert b"page" in bare.get()
    here('kill "$(cat /var/log/quorbit/quorbit.pid)"')
    here(install.replace("make install", "make uninstall"))
    kept = {"/var/log/quorbit/.quorbit.cfg", "/var/log/quorbit/php-agent.log"}
    assert ours(bare) - before - DAEMONS_OWN - kept - folders == set() and not (bare.folder / "usr/share/quorbit").exists()
