"""Starts real `vantrel` programs for the tests: free ports, a folder of their own."""
import os
import socket
import subprocess
import time
from pathlib import Path

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition, seconds: float = 15.0) -> bool:
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


class Service:
    """One `vantrel` program in `folder`, ready when its log says so."""

    def __init__(self, folder: Path) -> None:
        folder.mkdir()
        self.clients_port, self.net_port = free_port(), free_port()
        ini = Path(os.environ.get("VANTREL_DEFAULT_INI", REPOSITORY / "dist" / "Vantrel.ini")).read_text()
        (folder / "Vantrel.ini").write_text(ini + "\nMonitorPort = 0\n")
        log = folder / "vantrel.log"
        program = os.environ.get("VANTREL_PROGRAM", str(REPOSITORY / "build" / "default" / "programs" / "vantrel"))
        self.process = subprocess.Popen(
            [program, "--clients-port", str(self.clients_port), "--net-port", str(self.net_port), "--log-file",
             str(log), "--log-level", "debug"], cwd=folder, env=dict(os.environ, VANTREL_INI=str(folder / "Vantrel.ini")),
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        text = lambda: log.read_text(errors="replace") if log.exists() else ""  # noqa: E731
        started = wait_until(lambda: self.process.poll() is not None or "vantrel ready" in text())
        assert started and self.process.poll() is None, f"the service did not start: {text()}"


@pytest.fixture
def services(tmp_path: Path):
    """Starts a service for each call; stops them all after the test."""
    started = []
    yield lambda: started.append(Service(tmp_path / f"service{len(started)}")) or started[-1]
    for service in started:
        service.process.terminate()
        service.process.wait(20)


@pytest.fixture
def service(services) -> Service:
    return services()
