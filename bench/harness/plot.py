"""What was measured, as a picture: per row the agent and the others next to the limits."""

import subprocess
from math import inf

from harness.row import AGENT

HEIGHT_OF_A_ROW = 26


def scale(result):
    """What a figure is drawn as a share of: the limit that must hold, or else the one aimed at."""
    return result.row.must or result.row.aim


def can_be_drawn(result):
    """On a logarithmic axis there is no place for 0."""
    return bool(scale(result)) and 0 < result.figure() < inf


def points(results):
    """Per kind the points as (share, place, label); the table's first row is drawn on top."""
    kinds = {"agent": [], "other": [], "aim": []}
    for place, result in enumerate(reversed(results)):
        kinds["agent"].append((result.figure() / scale(result), place, AGENT))
        for peer in result.peers():
            if 0 < result.figure(peer) < inf:
                kinds["other"].append((result.figure(peer) / scale(result), place, peer))
        if result.row.aim:
            kinds["aim"].append((result.row.aim / scale(result), place, "aim"))
    return kinds


def block(kind, rows):
    body = "\n".join(f'{share:.4f} {place} "{label}"' for share, place, label in rows)
    return f"${kind} << END\n{body}\nEND\n"


def script(results, path):
    """What gnuplot is told, for rows that can be drawn."""
    kinds = points(results)
    shares = [share for rows in kinds.values() for share, _, _ in rows]
    tics = ", ".join(f'"{result.row.name}" {place}' for place, result in enumerate(reversed(results)))
    drawn = {
        "agent": "$agent using 1:2 with points pt 7 ps 0.9 lc rgb '#1f5fbf' title 'agent'",
        "other": "$other using 1:2:3 with labels left offset 0.7,0.5 font ',9' tc rgb '#707070' "
                 "point pt 6 ps 0.7 lc rgb '#909090' title 'others'",
        "aim": "$aim using 1:2 with points pt '|' lc rgb '#2e8b57' title 'aim'",
    }
    height = 140 + HEIGHT_OF_A_ROW * len(results)
    quoted = str(path).replace("'", "''")
    return "".join(block(kind, rows) for kind, rows in kinds.items() if rows) + f"""
set terminal svg size 1100,{height} dynamic background rgb 'white' font 'sans,11' noenhanced
set output '{quoted}'
set title 'Cost as a share of what must hold (1): less is better'
set logscale x
set xrange [{min(shares + [0.5]) / 1.5:.4f}:{max(shares + [2]) * 3:.4f}]
set yrange [-0.7:{len(results) - 0.3}]
set ytics ({tics})
set grid x
set arrow 1 from 1,graph 0 to 1,graph 1 nohead lc rgb '#c03030'
set key outside bottom center horizontal
plot {", ".join(drawn[kind] for kind in drawn if kinds[kind])}
"""


def draw(results, path):
    """Writes an SVG with gnuplot. Returns whether there was anything to draw."""
    drawable = [result for result in results if can_be_drawn(result)]
    if drawable:
        # Where it cannot write the file, it would go on with the screen.
        subprocess.run(["gnuplot"], input=script(drawable, path), text=True, check=True, stdout=subprocess.DEVNULL)
    return bool(drawable)
