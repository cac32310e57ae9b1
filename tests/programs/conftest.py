"""Tells at the end how many programs were drawn: a run that drew few does not pass unseen."""

from programs.runner import tally


def pytest_terminal_summary(terminalreporter):
    if tally["programs"]:
        terminalreporter.write_line(
            f"programs: {tally['programs']} run, each flat and eager; {tally['steps']} steps,"
            f" {tally['refused']} of them refused as by NumPy"
        )
