"""What is written down: trace checks, log records, agent events."""

import shutil
import tempfile

from harness.row import Group, Row


def trace_check(rig):
    return rig.samples(rig.program("TraceOff"), rig.pick(5, 21), 5000000)


def on_threads(threads, suffix):
    """Measures records and warnings of so many threads."""

    def measure(rig):
        folder = rig.folder(f"records{threads}")
        taken = rig.samples(rig.program("Records"), folder, threads, rig.pick(5, 21), 20000)
        shutil.rmtree(folder)
        return {f"{row}.{suffix}": samples for row, samples in taken.items()}

    return measure


def event(rig):
    # A memory file system has nothing to flush.
    folder = tempfile.mkdtemp(prefix="events-", dir=rig.build)
    try:
        return rig.samples(rig.program("DurableEvents"), folder, rig.pick(200, 2000))
    finally:
        shutil.rmtree(folder)


GROUPS = [
    Group((Row("trace.off", "a trace check that is switched off: relaxed atomic load", "ns", 8, 2.5),), trace_check),
    Group((Row("record.one", "trace records, one thread: write() a line", "ns", 1.35, 1.2),
           Row("warning.one", "framework log records, one thread: write() a line", "ns")), on_threads(1, "one")),
    Group((Row("record.two", "trace records, two threads: write() a line", "ns", 1.5, 1.25),
           Row("warning.two", "framework log records, two threads: write() a line", "ns")), on_threads(2, "two")),
    Group((Row("event", "a durable event: pwrite + fdatasync", "us", 2.7, 2.4),), event),
]
