"""The unit for systemd: valid everywhere, and run where a system can boot.

The scenarios share one system. Those in front leave the service enabled and running with the sample application.
"""

import subprocess

import pytest

from agentbox import BUILD, await_condition
from service import UNIT, Service, shell_blocks

GIVES_UP = "Too many restarts in too short of a time, exiting (8 restarts in less than 512 seconds)"


def test_unit_is_valid(tmp_path):
    installed, built = "=/opt/kx_agent/bin/kx_agent ", f"={BUILD}/bin/kx_agent "
    text = UNIT.read_text()
    assert installed in text
    unit = tmp_path / UNIT.name
    unit.write_text(text.replace(installed, built))

    verdict = subprocess.run(["systemd-analyze", "verify", "--man=no", unit], capture_output=True, text=True)

    assert (verdict.returncode, verdict.stdout + verdict.stderr) == (0, "")


# The unit as it is, with the sample application.


def test_installed_as_the_page_says_it_runs(machine):
    service = Service(machine, "kx_agent")
    service.await_state("active")

    assert await_condition(lambda: "Message: 2 folders: " in service.log_text(), "the scan's end")
    assert service.show("PIDFile") == "/run/kx_agent.pid"
    assert machine.run("cat", "/run/kx_agent.pid") == f"{service.watchdog()}\n"
    assert service.processes() == sorted([service.watchdog(), service.await_worker()])
    assert service.show("KillMode") == "mixed"


def test_changed_as_the_page_says_it_runs_the_other_command(machine):
    service = Service(machine, "kx_agent")
    (block,) = shell_blocks("systemd: change")

    machine.run("sh", "-e", input=block)

    service.await_state("active")
    assert await_condition(lambda: "Message: 3 folders: " in service.log_text(), "the scan's end")
    machine.run("rm", "-r", "/etc/systemd/system/kx_agent.service.d")
    service.systemctl("daemon-reload")


def test_power_off_is_an_orderly_stop_and_the_next_boot_a_start(machine):
    service = Service(machine, "kx_agent")
    begun = service.log_text().count("sigwait(): caught signal 15")

    machine.power_off()
    assert service.log_text().count("sigwait(): caught signal 15") == begun + 1
    assert service.log_text().rstrip().splitlines()[-1].partition("] ")[2].startswith("Verbose: VEL 11.0.0.2580 exiting.")

    machine.boot()
    service.await_state("active")


# With the application of these tests.


def test_application_that_dies_is_restarted_without_systemd(dying):
    dying.await_state("active")
    watchdog = dying.watchdog()

    await_condition(lambda: len(dying.life()) >= 3, "the third worker")

    assert (dying.state(), dying.watchdog(), dying.show("NRestarts")) == ("active", watchdog, "0")


def test_status_names_the_processes_and_the_page(service):
    service.start()
    worker = service.await_worker()

    shown = service.systemctl("status", "--no-pager", service.unit)

    assert "Docs: man:kx_agent(8)" in shown, shown
    assert f"Main PID: {service.watchdog()} (kx_agent)" in shown, shown
    assert f"─{worker} /opt/kx_agent/bin/kx_agent" in shown, shown


def test_application_runs_in_a_utf8_locale(service):
    service.start()

    assert await_condition(service.life, "the application's start") == ["init LANG=C.UTF-8"]


def test_worker_that_crashes_is_replaced_under_the_same_main_process(service):
    service.start()
    watchdog, worker = service.watchdog(), service.await_worker()
    await_condition(service.life, "the application's start")

    service.signal("SEGV", worker)

    assert service.await_worker(other_than=worker) != worker
    await_condition(lambda: len(service.life()) == 2, "the second start")
    assert (service.state(), service.watchdog(), service.show("NRestarts")) == ("active", watchdog, "0")
    assert "Error: Child process crashed with status " in service.log_text()


def test_stop_runs_shutdown_to_its_end_and_leaves_nothing(service):
    service.start()
    await_condition(service.life, "the application's start")

    service.stop()

    assert service.life()[1:] == ["shutdown begins", "shutdown ends"]
    assert (service.state(), service.show("Result"), service.processes()) == ("inactive", "success", [])
    assert not service.has_pid_file()


def test_stop_kills_what_the_application_left_behind_and_sends_it_no_sigterm(service):
    service.wish("leave_stranger")
    service.start()
    await_condition(lambda: "stranger is here" in service.life(), "the stranger's start")

    service.stop()

    assert service.processes() == []
    assert service.life()[-2:] == ["shutdown begins", "shutdown ends"]
    assert "stranger got SIGTERM" not in service.life()
    assert service.state() == "inactive"


def test_restart_stops_in_order_and_starts_another_watchdog(service):
    service.start()
    await_condition(service.life, "the application's start")
    watchdog = service.watchdog()

    service.systemctl("restart", service.unit)

    await_condition(lambda: len(service.life()) == 4, "the second start")
    assert service.life() == ["init LANG=C.UTF-8", "shutdown begins", "shutdown ends", "init LANG=C.UTF-8"]
    assert service.state() == "active"
    assert service.watchdog() not in (0, watchdog)


def test_reload_is_not_offered(service):
    service.start()

    refusal = service.machine.attempt("systemctl", "reload", service.unit)

    assert refusal.returncode != 0
    assert "not applicable" in refusal.stdout
    assert service.state() == "active"


@pytest.mark.parametrize("name", ["KILL", "SEGV"])
def test_watchdog_that_a_signal_kills_is_replaced_with_its_worker(service, name):
    service.start()
    watchdog, worker = service.watchdog(), service.await_worker()

    service.signal(name, watchdog)

    await_condition(lambda: service.show("NRestarts") == "1" and service.state() == "active", "the restart")
    assert service.watchdog() not in (0, watchdog)
    assert service.processes() == sorted([service.watchdog(), service.await_worker()])
    assert worker not in service.processes()
    assert f"{service.watchdog()}\n" == service.machine.run("cat", service.pid_file)


def test_watchdog_that_is_killed_again_and_again_is_given_up_and_startable_after_a_reset(service):
    service.configure(RestartSec="100ms")
    service.start()
    killed = []

    def kill_the_next():
        watchdog = service.watchdog()
        if watchdog not in (0, *killed):
            killed.append(watchdog)
            service.signal("KILL", watchdog)
        return service.state().startswith("failed")

    await_condition(kill_the_next, "systemd to give up")

    assert (len(killed), service.show("NRestarts")) == (10, "10")
    assert "Start request repeated too quickly." in service.journal()
    service.systemctl("reset-failed", service.unit)
    service.start()
    assert service.state() == "active"


def test_application_that_ends_with_a_status_is_a_failed_unit_and_is_not_restarted(service):
    service.wish("end_when_told")
    service.start()
    service.await_state("active")

    service.wish("end", content="7")

    service.await_state("failed (exit-code 7)")
    assert (service.show("NRestarts"), service.processes()) == ("0", [])
    assert not service.has_pid_file()
    assert "Main process exited, code=exited, status=7" in service.journal()


def test_application_that_is_told_to_end_well_leaves_an_inactive_unit(service):
    service.start()
    await_condition(service.life, "the application's start")

    service.signal("INT", service.await_worker())

    service.await_state("inactive")
    assert service.show("NRestarts") == "0"


def test_shutdown_that_fails_is_a_failed_unit(service):
    service.wish("shutdown_status", content="9")
    service.start()
    await_condition(service.life, "the application's start")

    service.stop()

    assert service.state() == "failed (exit-code 9)"


def test_shutdown_that_takes_too_long_is_killed_and_seen(service):
    service.configure(TimeoutStopSec="1")
    service.wish("hang")
    service.start()
    await_condition(service.life, "the application's start")

    service.stop()

    assert service.state() == "failed (timeout 9)"
    assert service.processes() == []
    assert not service.has_pid_file()
    assert service.life()[1:] == ["shutdown begins"]


def test_unit_allows_a_minute_for_shutdown(service):
    assert service.show("TimeoutStopUSec") == "1min"


def test_worker_without_memory_is_left_to_the_watchdog(service):
    # Without a memory controller nothing more can be seen.
    assert service.show("OOMPolicy") == "continue"


def test_wrong_command_line_is_shown_in_the_journal(service):
    service.configure(command="--no-such-option")

    refusal = service.machine.attempt("systemctl", "start", service.unit)

    assert refusal.returncode != 0
    assert service.state().startswith("failed (exit-code")
    assert "no-such-option" in service.journal()


def test_instance_started_by_hand_is_not_disturbed(service):
    by_hand = ["/opt/kx_agent/bin/kx_agent", "--background", "--workdir=/var/opt/by_hand", "--", "/etc"]
    service.machine.run(*by_hand)
    await_condition(service.has_pid_file, "the pid file")
    process = service.machine.run("cat", service.pid_file).strip()

    refusal = service.machine.attempt("systemctl", "start", service.unit)

    assert refusal.returncode != 0
    assert service.state().startswith("failed (exit-code")
    assert "Error: /var/run/kx_agent.pid present, exiting" in service.log_text()
    service.signal("0", process)
    service.signal("TERM", process)
    await_condition(lambda: service.machine.attempt("test", "-e", f"/proc/{process}").returncode != 0, "its end")


def test_second_start_by_hand_does_not_disturb_the_service(service):
    service.start()
    watchdog, worker = service.watchdog(), service.await_worker()

    by_hand = service.machine.attempt("/opt/kx_agent/bin/kx_agent", "--background", "--workdir=/var/opt/by_hand")

    assert by_hand.returncode == 1
    assert (service.state(), service.watchdog(), service.await_worker()) == ("active", watchdog, worker)


def test_systemd_took_no_watchdog_for_a_strangers_child(machine):
    # It is a matter of milliseconds, and has gone well in each of the starts above.
    assert "which is not our child" not in machine.run("journalctl", "--no-pager", "--unit=kx_agent.service")


# Last, because its two minutes run beside the scenarios above.


def test_watchdog_that_gives_up_is_a_failed_unit_and_is_not_restarted(dying):
    dying.await_state("failed (exit-code 255)", timeout_s=200)

    assert len(dying.life()) == 8
    assert GIVES_UP in dying.log_text()
    assert (dying.show("NRestarts"), dying.processes()) == ("0", [])
    assert not dying.has_pid_file()
    status = dying.machine.attempt("systemctl", "status", "--no-pager", dying.unit)
    assert "status=255" in status.stdout, status.stdout


def test_service_that_has_given_up_starts_again_without_a_reset(dying):
    dying.machine.path(f"{dying.work}/die").unlink()

    dying.start()

    await_condition(lambda: len(dying.life()) == 9, "the ninth start")
    dying.await_state("active")
