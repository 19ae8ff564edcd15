"""What was measured, as a table for a screen and as JSON."""

import json
import os
import platform
import shutil
import subprocess
from datetime import datetime, timezone

from harness.row import AGENT


def amount(value):
    """Three significant digits, without an exponent."""
    if value == 0:
        return "0"
    if abs(value) >= 100:
        return f"{value:,.0f}"
    return f"{value:.3g}"


def ratio(value):
    return f"{value:.2f} x"


def limit(row, value):
    if value is None:
        return ""
    return f"{value:g} x" if row.base else f"{value:g}"


def peers(result):
    if result.row.base:
        return ", ".join(f"{name} {result.figure(name):.2g} x" for name in result.peers())
    return ", ".join(f"{name} {amount(result.median(name))}" for name in result.peers())


def cells(result):
    row = result.row
    base = f"{amount(result.median(row.base))}" if row.base else ""
    figure = ratio(result.figure()) if row.base else ""
    return [row.name, f"{amount(result.median(AGENT))} {row.unit}", base, figure, limit(row, row.must),
            limit(row, row.aim), result.verdict(), peers(result)]


HEAD = ["row", "agent", "base", "ratio", "must", "aim", "holds", "others"]


def table(results):
    lines = [HEAD] + [cells(result) for result in results]
    widths = [max(len(line[column]) for line in lines) for column in range(len(HEAD))]
    text = []
    for line in lines:
        padded = [cell.ljust(width) if column in (0, 6, 7) else cell.rjust(width)
                  for column, (cell, width) in enumerate(zip(line, widths))]
        text.append("  ".join(padded).rstrip())
    return "\n".join(text)


def machine():
    return {"system": platform.platform(), "processors": os.cpu_count(), "load": os.getloadavg()[0]}


def commit(source):
    """The commit measured; empty outside a clone, and without git."""
    if not shutil.which("git"):
        return ""
    done = subprocess.run(["git", "-C", str(source), "describe", "--always", "--dirty"], stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True, check=False)
    return done.stdout.strip()


def as_json(results, source, quick):
    return json.dumps({
        "time": datetime.now(timezone.utc).isoformat(timespec="seconds"),
        "commit": commit(source),
        "machine": machine(),
        "quick": quick,
        "rows": [{
            "name": result.row.name,
            "title": result.row.title,
            "unit": result.row.unit,
            "base": result.row.base,
            "must": result.row.must,
            "aim": result.row.aim,
            "figure": result.figure(),
            "holds": result.verdict(),
            "contenders": {name: {"median": result.median(name), "samples": samples}
                           for name, samples in result.samples.items()},
        } for result in results],
    }, indent=1)
