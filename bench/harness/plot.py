"""What was measured, as a picture: per row the agent and the others next to the limits."""

import subprocess
from math import isfinite

from harness.row import AGENT

HEIGHT_OF_A_ROW = 26


def points(results):
    """One line a point: place, name of the row, what it is, and its figure as a share of what it must hold."""
    lines = []
    for place, result in enumerate(reversed(results)):
        scale = result.row.must or result.row.aim
        if not scale:
            continue
        for contender in [AGENT, *result.peers()]:
            share = result.figure(contender) / scale
            if isfinite(share) and share > 0:
                kind = "agent" if contender == AGENT else "other"
                lines.append((kind, place, share, contender))
        if result.row.aim:
            lines.append(("aim", place, result.row.aim / scale, ""))
    return lines


def block(name, rows):
    body = "\n".join(f'{share:.4f} {place} "{label}"' for _, place, share, label in rows)
    return f"${name} << END\n{body}\nEND\n"


def script(results, path):
    everything = points(results)
    kinds = {kind: [point for point in everything if point[0] == kind] for kind in ("agent", "other", "aim")}
    tics = ", ".join(f'"{result.row.name}" {place}' for place, result in enumerate(reversed(results)))
    drawn = {
        "agent": "$agent using 1:2 with points pt 7 ps 0.9 lc rgb '#1f5fbf' title 'agent'",
        "other": "$other using 1:2:3 with labels left offset 0.7,0 font ',9' tc rgb '#707070' "
                 "point pt 6 ps 0.7 lc rgb '#909090' title 'others'",
        "aim": "$aim using 1:2 with points pt '|' lc rgb '#2e8b57' title 'aim'",
    }
    plots = ", ".join(drawn[kind] for kind in drawn if kinds[kind])
    return "".join(block(kind, rows) for kind, rows in kinds.items() if rows) + f"""
set terminal svg size 1100,{140 + HEIGHT_OF_A_ROW * len(results)} dynamic background rgb 'white' font 'sans,11'
set output '{path}'
set title 'Cost as a share of what must hold (1): less is better'
set logscale x
set xrange [0.02:50]
set yrange [-0.7:{len(results) - 0.3}]
set ytics ({tics})
set grid x
set arrow 1 from 1,graph 0 to 1,graph 1 nohead lc rgb '#c03030'
set key outside bottom center horizontal
plot {plots}
"""


def draw(results, path):
    """Writes an SVG with gnuplot."""
    subprocess.run(["gnuplot"], input=script(results, path), text=True, check=True)
