"""The drivers that give figures of the core library to other programs: what they print, and what they refuse."""

import os
import re
import subprocess

import pytest

from agentbox import BUILD

FIGURES = {
    "kx_bench_kv 100 0.01": ["get 1thread", "get 2threads", "set 1thread", "set 2threads"],
    "kx_bench_log . 200": ["off_trace", "on_trace", "on_trace|2 threads", "on_log", "on_log|2 threads"],
    "kx_bench_events . 20": ["rate", "p50", "p99"],
}


def run(words, folder):
    program, *arguments = words.split(" ")
    path = os.path.join(BUILD, "bench", program)
    return subprocess.run([path, *arguments], cwd=folder, capture_output=True, text=True, timeout=600)


@pytest.mark.parametrize("words", FIGURES)
def test_figures_are_one_a_line(tmp_path, words):
    outcome = run(words, tmp_path)

    assert (outcome.returncode, outcome.stderr) == (0, "")
    lines = [re.fullmatch(r"(.+) (\d+\.\d)", line) for line in outcome.stdout.splitlines()]
    assert all(lines), outcome.stdout
    assert [line[1] for line in lines] == FIGURES[words]
    assert all(float(line[2]) > 0 for line in lines), outcome.stdout


def test_every_line_that_counts_is_in_the_log(tmp_path):
    run("kx_bench_log . 200", tmp_path)

    lines = (tmp_path / "log" / "bench.log").read_text().splitlines()
    assert len(lines) == 4 * 200
    assert sum("Warning: record" in line for line in lines) == 2 * 200


REFUSED = {
    "kx_bench_kv": "usage: kx_bench_kv KEYS SECONDS\n",
    "kx_bench_kv 1.5 1": "KEYS is no whole number below 2^31: '1.5'\n",
    "kx_bench_kv 10 never": "SECONDS is no positive number: 'never'\n",
    "kx_bench_log . 0": "LINES is no positive number: '0'\n",
    "kx_bench_events . 1 2": "usage: kx_bench_events DIR COUNT\n",
}


@pytest.mark.parametrize("words", REFUSED)
def test_other_arguments_are_refused(tmp_path, words):
    outcome = run(words, tmp_path)

    assert (outcome.returncode, outcome.stdout, outcome.stderr) == (2, "", REFUSED[words])


def test_folder_that_is_not_there_is_refused(tmp_path):
    outcome = run("kx_bench_log away 10", tmp_path)

    assert (outcome.returncode, outcome.stderr) == (1, "cannot use the folder 'away'\n")
