"""What script/bench makes of its samples: order of the rounds, figures, verdicts, table, JSON, picture, arguments."""

import json
import os
import subprocess
import sys

import pytest

SOURCE = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
sys.path.insert(0, os.path.join(SOURCE, "bench"))

from harness import plot, report  # noqa: E402
from harness.rig import Rig  # noqa: E402
from harness.rounds import in_turn, split  # noqa: E402
from harness.row import Result, Row  # noqa: E402

RATIO = Row("unpack", "unpack it", "ms", must=1.9, aim=1.4)
PLAIN = Row("stop", "stop it", "ms", must=7, aim=3, base=None)


def test_every_round_begins_with_another_contender():
    order = []
    contenders = {name: lambda name=name: order.append(name) or len(order) for name in "abc"}

    samples = in_turn(contenders, 4)

    assert "".join(order) == "abc" "bca" "cab" "abc"
    assert samples == {"a": [1, 6, 8, 10], "b": [2, 4, 9, 11], "c": [3, 5, 7, 12]}


def test_samples_of_several_figures_are_split():
    taken = {"agent": [(1, 10), (2, 20)], "floor": [(3, 30)]}

    assert split(taken, ("wall", "cpu")) == {
        "wall": {"agent": [1, 2], "floor": [3]}, "cpu": {"agent": [10, 20], "floor": [30]}}


@pytest.mark.parametrize("agent, verdict", [(14, "aim"), (14.1, "must"), (19, "must"), (19.1, "MISSED")])
def test_a_ratio_is_judged_by_the_medians(agent, verdict):
    result = Result(RATIO, {"agent": [1, agent, 1000], "floor": [10, 10, 500]})

    assert result.figure() == agent / 10
    assert result.verdict() == verdict


@pytest.mark.parametrize("agent, verdict", [(3, "aim"), (7, "must"), (7.1, "MISSED")])
def test_a_plain_figure_needs_no_base(agent, verdict):
    assert Result(PLAIN, {"agent": [agent]}).verdict() == verdict


def test_a_row_may_be_compared_with_another_contender():
    row = Row("start.background", "start it", "ms", must=1.5, base="foreground")

    result = Result(row, {"agent": [3], "foreground": [2], "floor": [1]})

    assert (result.figure(), result.verdict(), result.peers()) == (1.5, "must", ["floor"])


def test_a_row_without_limits_has_no_verdict():
    assert Result(Row("memory", "", "MiB"), {"agent": [3], "floor": [2]}).verdict() == ""


def test_nothing_at_all_is_the_best_figure():
    assert Result(Row("idle", "", "ms", must=0, aim=0, base=None), {"agent": [0, 0]}).verdict() == "aim"


def results():
    return [Result(RATIO, {"agent": [15.0], "floor": [10.0], "libzip": [19.0], "bsdtar": [25.0]}),
            Result(PLAIN, {"agent": [8.0], "s6": [2.9]})]


def test_the_table_shows_every_figure_beside_its_limits():
    head, ratio, plain = report.table(results()).splitlines()

    assert head.split() == ["row", "agent", "base", "ratio", "must", "aim", "holds", "others"]
    assert ratio.split() == ["unpack", "15", "ms", "10", "1.50", "x", "1.9", "x", "1.4", "x", "must",
                             "libzip", "1.9", "x,", "bsdtar", "2.5", "x"]
    assert plain.split() == ["stop", "8", "ms", "7", "3", "MISSED", "s6", "2.9"]


@pytest.mark.parametrize("value, text", [(0, "0"), (0.01234, "0.0123"), (1.234, "1.23"), (12.34, "12.3"),
                                         (123.4, "123"), (12345.6, "12,346")])
def test_amounts_have_three_digits(value, text):
    assert report.amount(value) == text


def test_the_json_holds_every_sample():
    written = json.loads(report.as_json(results(), SOURCE, quick=True))

    assert written["quick"] is True
    assert written["machine"]["processors"] == os.cpu_count()
    first = written["rows"][0]
    assert (first["name"], first["figure"], first["holds"]) == ("unpack", 1.5, "must")
    assert first["contenders"]["bsdtar"] == {"median": 25.0, "samples": [25.0]}


def test_the_picture_shows_shares_of_what_must_hold():
    drawn = plot.points(results())

    assert [(round(share, 3), place, label) for share, place, label in drawn["agent"]] == [
        (1.143, 0, "agent"), (0.789, 1, "agent")]
    assert {label for _, _, label in drawn["other"]} == {"libzip", "bsdtar", "s6"}
    assert [round(share, 3) for share, _, _ in drawn["aim"]] == [0.429, 0.737]


def test_what_a_logarithmic_axis_cannot_show_is_left_out_of_the_picture(tmp_path):
    idle = Result(Row("idle", "", "ms", must=0, aim=0, base=None), {"agent": [0]})

    assert not plot.can_be_drawn(idle)
    assert plot.draw([idle], tmp_path / "none.svg") is False
    assert not (tmp_path / "none.svg").exists()


def test_a_file_name_with_a_quote_is_gnuplots_own_text():
    assert "set output 'it''s.svg'" in plot.script(results(), "it's.svg")


def test_lines_of_a_program_are_samples(tmp_path):
    rig = Rig(tmp_path, quick=True)
    try:
        taken = rig.samples("printf", r"store.one shared mutex 1.5\nstore.one agent 2\nstore.one agent 3\n")
        scratch = rig.folder("a")
        assert rig.pick(1, 2) == 1
    finally:
        rig.close()

    assert taken == {"store.one": {"shared mutex": [1.5], "agent": [2.0, 3.0]}}
    assert not scratch.exists()


def bench(*arguments):
    return subprocess.run([sys.executable, os.path.join(SOURCE, "bench", "bench.py"), *arguments],
                          capture_output=True, text=True, timeout=60)


def test_an_unknown_row_is_named():
    outcome = bench("no.such.row")

    assert outcome.returncode == 2
    assert "no such row: no.such.row (--list shows them)" in outcome.stderr


def test_the_list_names_every_row_once():
    outcome = bench("--list")

    assert (outcome.returncode, outcome.stderr) == (0, "")
    names = [line.split()[0] for line in outcome.stdout.splitlines()]
    assert len(names) == len(set(names)), names
    assert all(len(line.split()) > 1 for line in outcome.stdout.splitlines()), outcome.stdout


def test_what_cannot_be_measured_or_written_costs_nothing_else(tmp_path):
    for name, printed in (("DomGet", "dom.get floor 2\\ndom.get agent 3\\n"), ("TraceOff", "no figures here\\n")):
        program = tmp_path / "build" / "bench" / name
        program.parent.mkdir(parents=True, exist_ok=True)
        program.write_text(f"#!/bin/sh\nprintf '{printed}'\n")
        program.chmod(0o755)

    outcome = bench("--build", str(tmp_path / "build"), "--from", str(tmp_path), "--json", "samples.json",
                    "--plot", "none/picture.svg", "--quick", "trace.off", "dom.get")

    assert outcome.returncode == 1
    assert "dom.get" in outcome.stdout and "1.50 x" in outcome.stdout, outcome.stdout
    assert "script/bench: not measured: trace.off: " in outcome.stderr
    assert "script/bench: not written: " in outcome.stderr
    assert "Traceback" not in outcome.stderr
    assert "dom.get" in (tmp_path / "samples.json").read_text()
