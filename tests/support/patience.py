"""How tests wait for programs: for what must happen, never for a while, and with one bound.

The machine may run compilers and other tests beside, so the bound is what no program takes that still works. A test that
passes does not wait for it.
"""

import os
import time

LIMIT = 90  # seconds until something that must happen counts as missing


def wait_until(condition, what):
    """The first true value of a condition; `what` is a text, or makes one when the time is over."""
    end = time.monotonic() + LIMIT
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > end:
            raise AssertionError(f"did not happen: {what() if callable(what) else what}")
        time.sleep(0.03)


def holds_for(seconds, condition, what):
    """Fails when a condition ends within so many seconds."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if not condition():
            raise AssertionError(f"did not last: {what}")
        time.sleep(0.1)


def own_address(number=0):
    """One of three loopback addresses that no other process has, so that any port is free there."""
    process = os.getpid()
    assert process < 1 << 22 and number in range(3)
    return f"127.{(number + 1) * 64 + (process >> 16)}.{process >> 8 & 255}.{process & 255}"
