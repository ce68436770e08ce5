"""The long runs of tests/soak in brief: reloads under load, many requests, forks, and neighbours that hook the engine too."""
import pytest

from soak import scenarios


def silent(_):
    """Nobody reads the figures of a short run."""


@pytest.mark.parametrize("kind, count", [("event", 5), ("worker", 3), ("fpm", 20)])
def test_reloads_under_load_lose_no_answer_and_no_packet(kind, count):
    """The parent starts the module again each time, children end with it: nothing of that shows, and descriptors stay. (A child
    of FPM that is told to end just when it has taken a connection closes it unread, seldom.)"""
    figures = scenarios.reloads(kind, count, silent)
    assert figures["reloads"] == count and not figures["packets of requests not answered"], figures
    assert sum(figures["not answered"].values()) <= (count // 10 if kind == "fpm" else 0), figures


@pytest.mark.parametrize("kind, count", [("event", 15_000), ("fpm", 5_000)])
def test_many_requests_leave_memory_and_descriptors_as_they_were(kind, count):
    figures = scenarios.requests(kind, count, silent)
    assert figures["answered"] == count and figures["connections"] <= 40, figures      # one for each thread, kept


def test_every_process_of_a_fork_tree_reports_its_own_run_once():
    assert scenarios.forks(3)["processes"] == 120


@pytest.mark.parametrize("order", scenarios.ORDERS)
def test_neighbours_see_the_same_with_the_agent(order):
    """Traces, coverage, stacks and limits of a debugger, and code from a cache, whichever was loaded first."""
    scenarios.neighbours(order)


@pytest.mark.parametrize("kind", ["event", "fpm"])
def test_neighbours_and_the_agent_share_a_loaded_server(kind):
    figures = scenarios.neighbours_under_load(kind, "opcache agent xdebug", 2_000)
    assert figures["answered"] == 2_000, figures
