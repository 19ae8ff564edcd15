"""Waiting for a condition with a deadline, instead of sleeping."""

import time

# Everything here ends in well under a second; the limit is for machines under load and for sanitizer builds.
DEADLINE_S = 60


def await_condition(condition, what, timeout_s=DEADLINE_S):
    """Waits until `condition()` gives something true, and returns it."""
    end = time.monotonic() + timeout_s
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        time.sleep(0.005)
    raise AssertionError(f"timed out after {timeout_s} s waiting for {what}")
