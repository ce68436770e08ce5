"""What later versions of PHP will not run as PHP 5.6 does, and which functions are called."""
import json
import shutil
from pathlib import Path

import pytest

from support import engines
from support.engines import AGENT, SCRIPTS
from support.fake_daemon import wait_until

ASKED = {"zqs.radar": "1"}
OPCACHE = {"load": ["zend_extension=opcache.so", AGENT], "opcache.enable_cli": "1", "opcache.revalidate_freq": "0"}
SHOP, BLOG = "require 'shop.php';", "require 'blog.php';"


@pytest.fixture
def shop(site):
    for file in [*(SCRIPTS / "radar").iterdir(), *(SCRIPTS / "radar_blog").iterdir()]:
        shutil.copy(file, site.docroot)
    return site


def listed(of):
    """(file, line, "name" or "+name") of the marks in the sources of a folder."""
    return {(path.name, number, mark) for path in (SCRIPTS / of).iterdir() for number, line in enumerate(path.read_text().splitlines(), 1)
            for mark in line.partition("//=")[2].split()}


def reported(metrics):
    return {(Path(file).name, line, "+" * evidence + name.replace(" ", "_")) for metric in metrics if metric.radar
            for file, line, _, name, _, evidence in metric.radar.sites}


@pytest.mark.parametrize("page, folder", [(SHOP, "radar"), (BLOG, "radar_blog")], ids=["shop", "blog"])
@pytest.mark.parametrize("ini", [{}, OPCACHE], ids=["plain", "opcache"])
def test_old_code_is_found_as_the_migration_guides_are_read_once_per_process(shop, ini, page, folder):
    shop.daemon.configure(ASKED)
    pair = shop.serve(engines.FastCgi, ini)
    first, second = pair.get(page).metric, pair.get(page).metric
    assert reported([first]) == listed(folder) and second.radar is None
    called = {name: state for _, _, name, state in first.radar.functions}       # of two of a name, that it was called comes last
    never = {name for name, state in called.items() if not state}
    assert page == BLOG or never == {
        "Basket::never", "Basket::ofNobody", "String::text", "Old\\Cart::Cart", "Old\\Cart::serialize", "Old\\Cart::unserialize",
        "Old\\each", "Old\\count_all", "Old\\Resource::get", "cart_never"}


def test_nothing_is_noted_for_a_daemon_that_does_not_ask(shop):
    for settings, stamp in (({}, 1), ({"zqs.radar": "0"}, 2)):
        shop.daemon.configure(settings, stamp)
        assert shop.cgi(SHOP).metric.radar is None


def test_the_command_tells_what_stands_in_the_way(shop, real):
    real.php(SHOP)
    wait_until(lambda: json.loads(real.command("radar", "--json") or "{}").get("sites"), "the radar")
    sites = json.loads(real.command("radar", "--app", "Shop", "--to", "7.0", "--json"))["sites"]
    assert {site["version"] for site in sites} == {"7.0"}
    found = {(site["use"], site["evidence"]): site for site in sites}
    ran = found["split()", "runs"]
    assert (ran["file"], ran["effect"]) == (str(shop.docroot / "shop.php"), "removed") and ran["last_run"]
    assert ("ereg_replace()", "not seen") in found
    assert "PHP 8.0: " in real.command("radar") and ",removed" not in real.command("radar", "--to", "5.6", "--csv")
    assert json.loads(real.command("radar", "--sarif"))["runs"][0]["results"]
