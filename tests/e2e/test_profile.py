"""A thread profile: each action sends its events while it lasts."""
import time

from support.cases import program


def profile(site, seconds):
    site.daemon.configure({"zqs.profile_end_time": str(int(time.monotonic()) + seconds)})
    site.script("function part() { } part();", "part.php")


def test_events_of_an_action(site):
    profile(site, 60)
    before = int(time.monotonic() * 1000)
    result = site.cgi(program("profile.php"), ini={"zqs.license_key": "k1"})
    found = [(event.event, event.name) for event in result.events]
    assert found == [
        ("enter action", "Web"), ("enter function", "main"), ("enter function", "Cart::total"), ("enter function", "Cart::sum"),
        ("leave function", "Cart::sum"), ("leave function", "Cart::total"), ("enter function", "include"),
        ("enter function", "part"), ("leave function", "part"), ("leave function", "include"),
        ("enter function", "strlen"), ("leave function", "strlen"), ("leave function", "main"),
        ("enter function", "eval"), ("enter function", "last"), ("leave action", "ok")]
    assert {(event.app, event.license, event.tid) for event in result.events} == {("Shop", "k1", site.daemon.connections[0].pid)}
    times = [event.ms for event in result.events]
    assert times == sorted(times) and before <= times[0] and times[-1] <= time.monotonic() * 1000


def test_background_actions_and_long_names(site):
    profile(site, 60)
    name = "f" * 300
    events = site.cli(f"function {name}() {{ }} {name}();").events
    assert (events[0].event, events[0].name) == ("enter action", "Background")
    assert [set(event.name) for event in events[1:3]] == [{"f"}, {"f"}] and 200 < len(events[1].name) < 255


def test_events_end_in_the_middle_of_an_action(site, shim):
    profile(site, 60)
    code = 'function a() { } a(); file_put_contents(getenv("SHIM_CLOCK"), "100"); a();'
    assert [event.name for event in site.cgi(code, env=shim).events] == ["Web", "a", "a", "getenv", "getenv", "file_put_contents"]
