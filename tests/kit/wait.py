"""Waiting by polling a condition with a deadline."""
import time


def wait_until(condition, seconds=10.0, what="the condition"):
    """Polls until the condition is true and returns its value; fails after the given time.

    what: a text about the condition, or a function that returns it, called at the failure."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            text = what() if callable(what) else what
            raise AssertionError(f"{text} did not come true within {seconds} s")
        time.sleep(0.01)
