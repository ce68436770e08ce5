"""How the engine gets into its cache: tried with a stand-in source that builds in a moment, fetched by a stand-in npm."""
import os
import re
import signal
import subprocess

import pytest

from support.engines import PROJECT
from support.fake_daemon import wait_until
from support.workshop import TIMEOUT_S, Workshop


def test_two_at_once_build_one_engine_and_later_runs_none(tmp_path):
    shop = Workshop(tmp_path)
    for process in [shop.start(), shop.start()]:
        output, _ = process.communicate(timeout=TIMEOUT_S)
        assert process.returncode == 0, output
    shop.link.unlink()
    assert shop.find() == (0, "")
    assert shop.fetches() == 1
    assert shop.engines() == [shop.link.resolve()]
    assert (shop.link / "apache/libphp5.so").read_text() == "module\n"


def test_a_changed_recipe_gives_another_engine(tmp_path):
    shop = Workshop(tmp_path)
    assert shop.find()[0] == 0
    first = shop.link.resolve()
    with open(shop.scripts / "recipe.sh", "a") as recipe:
        recipe.write('ENGINE_CFLAGS="$ENGINE_CFLAGS -O1"\n')
    assert shop.find()[0] == 0
    assert shop.link.resolve() != first and len(shop.engines()) == 2


@pytest.mark.parametrize("fault, said", [
    ({"npm": "exit 1"}, "build failed"),
    ({"npm": "head -c 1000 /dev/zero >source.tgz"}, "not in gzip format"),
    ({"npm": "mkdir -p package/deps; echo x >package/deps/php-5.6.15.tar.gz; tar -czf s.tgz package"}, "wrong checksum"),
    ({"build": "echo No space left on device; exit 1"}, "No space left on device"),
    ({"build": "rm -rf libs"}, "libphp5.so"),
    ({"build_id": "API20131226,NTS"}, '"API20131226,NTS"'),
], ids=["no download", "broken download", "wrong checksum", "full disk", "file missing", "not thread-safe"])
def test_a_failed_build_leaves_nothing_that_passes_for_an_engine(tmp_path, fault, said):
    shop = Workshop(tmp_path, **fault)
    for _ in range(2):                      # a second run must try again, not trust what the first one left
        code, output = shop.find()
        assert code != 0 and said in output
        assert shop.engines() == [] and not shop.link.exists()
    assert shop.fetches() == 2


def test_no_engine_is_built_below_a_path_with_a_space(tmp_path):
    """PHP's own build does not survive one."""
    (tmp_path / "a cache").mkdir()
    code, output = Workshop(tmp_path / "a cache").find()
    assert code == 1 and "set QUORBIT_CACHE" in output


def test_nothing_is_installed_against_the_owners_wish(tmp_path):
    """What is missing is told with its purpose, and the command that would install it."""
    shop = Workshop(tmp_path)
    for name, script in {"dpkg-query": "exit 1", "apt-get": f"touch {tmp_path}/installed"}.items():
        (tmp_path / "tools" / name).write_text(f"#!/bin/sh\n{script}\n")
        (tmp_path / "tools" / name).chmod(0o755)
    run = subprocess.run([shop.scripts / "packages", "build", "bench"], env={**shop.environment, "QUORBIT_INSTALL": "no"},
                         capture_output=True, text=True, timeout=TIMEOUT_S)
    assert run.returncode == 1 and not (tmp_path / "installed").exists()
    assert re.search(r"missing to build the extension.*: make.*\n.*missing to draw .*: python3-matplotlib.*\n.*\n +sudo apt-get install "
                     r".*libcjson-dev .*python3-matplotlib", run.stderr), run.stderr


@pytest.mark.parametrize("number, leftovers", [(signal.SIGTERM, 0), (signal.SIGINT, 0), (signal.SIGKILL, 1)])
def test_an_interrupted_build_is_done_again(tmp_path, number, leftovers):
    shop = Workshop(tmp_path, npm=f"[ -e {tmp_path}/go ] || exec sleep {TIMEOUT_S}; cp {tmp_path}/package.tgz .")
    process = shop.start()
    wait_until(lambda: shop.fetches() == 1, "the download to begin")
    os.killpg(process.pid, number)
    process.communicate(timeout=TIMEOUT_S)      # until the last of the group has ended
    assert process.returncode != 0
    assert len(shop.engines()) == leftovers and not shop.link.exists()
    (tmp_path / "go").touch()
    assert shop.find()[0] == 0
    assert shop.engines() == [shop.link.resolve()]


def given_engine(folder, build_id):
    """An engine of somebody else: php-config and php alone."""
    php, config = folder / "php", folder / "php-config"
    php.write_text(f"#!/bin/sh\necho 'PHP Extension Build => {build_id}'\n")
    config.write_text(f"#!/bin/sh\ncase $1 in --prefix) echo {folder};; --php-binary) echo {php};; esac\n")
    for path in (php, config):
        path.chmod(0o755)
    return config


@pytest.mark.parametrize("build_id, accepted", [
    ("API20131226,TS", True), ("API20131226,NTS", False), ("API20131226,TS,debug", False), ("API20121212,TS", False), ("", False)])
def test_a_given_engine_must_be_the_right_one(tmp_path, build_id, accepted):
    config, link = given_engine(tmp_path, build_id), tmp_path / "link"
    run = subprocess.run([PROJECT / "engine/find", link], env={**os.environ, "PHP_CONFIG": str(config)},
                         capture_output=True, text=True, timeout=TIMEOUT_S)
    assert (run.returncode == 0) == accepted, run.stderr
    if accepted:
        assert (link / "bin/php-config").resolve() == config and "no lib/libphp5.so" in run.stderr
    else:
        assert f'"{build_id or "unknown"}"' in run.stderr and '"API20131226,TS"' in run.stderr and not link.exists()
