"""A row of the table: what is compared with what, and how far off it may be."""

from dataclasses import dataclass
from statistics import median

AGENT = "agent"
FLOOR = "floor"


@dataclass(frozen=True)
class Row:
    """One figure of the agent.

    With a `base` the figure is a ratio of medians, the agent's to that contender's; without one it is the agent's own
    median, in `unit`. `must` and `aim` are upper limits of the figure; None is no limit.
    """

    name: str  # what a person types
    title: str
    unit: str
    must: float | None = None
    aim: float | None = None
    base: str | None = FLOOR


@dataclass(frozen=True)
class Group:
    """Rows that one run of `measure` fills.

    `measure(rig)` returns {row name: {contender: [sample, ...]}}. It makes all contenders' samples in turn, round by
    round (`rounds.in_turn`), because what else the machine does changes from one minute to the next.
    """

    rows: tuple[Row, ...]
    measure: object


@dataclass(frozen=True)
class Result:
    row: Row
    samples: dict[str, list[float]]

    def median(self, contender):
        return median(self.samples[contender])

    def figure(self, contender=AGENT):
        """The ratio to the base, or the plain median where there is none."""
        if self.row.base is None:
            return self.median(contender)
        base = self.median(self.row.base)
        return self.median(contender) / base if base else float("inf")

    def peers(self):
        return [name for name in self.samples if name not in (AGENT, self.row.base)]

    def verdict(self):
        figure = self.figure()
        if self.row.aim is not None and figure <= self.row.aim:
            return "aim"
        if self.row.must is None:
            return ""
        return "must" if figure <= self.row.must else "MISSED"
