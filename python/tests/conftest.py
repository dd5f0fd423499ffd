"""Starts real `vantrel` programs for the tests: free ports, a folder of their own."""
from __future__ import annotations

import os
import socket
import subprocess
import time
from pathlib import Path
from typing import Callable, Iterator, List

import pytest

REPOSITORY = Path(__file__).resolve().parents[2]


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition: Callable[[], bool], seconds: float = 15.0) -> bool:
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


class Service:
    """One `vantrel` program; the test owns it and stops it."""

    def __init__(self, folder: Path) -> None:
        folder.mkdir()
        self.folder = folder
        self.clients_port, self.net_port = free_port(), free_port()
        ini = Path(os.environ.get("VANTREL_DEFAULT_INI", REPOSITORY / "dist" / "Vantrel.ini")).read_text()
        (folder / "Vantrel.ini").write_text(ini + "\nMonitorPort = 0\n")
        self.log = folder / "vantrel.log"
        program = os.environ.get("VANTREL_PROGRAM", str(REPOSITORY / "build" / "default" / "programs" / "vantrel"))
        env = dict(os.environ, VANTREL_INI=str(folder / "Vantrel.ini"))
        self.process = subprocess.Popen(
            [program, "--clients-port", str(self.clients_port), "--net-port", str(self.net_port),
             "--log-file", str(self.log), "--log-level", "debug"],
            cwd=folder, env=env, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        ready = wait_until(lambda: self.process.poll() is not None or
                           (self.log.exists() and "vantrel ready" in self.log.read_text(errors="replace")))
        assert ready and self.process.poll() is None, f"the service did not start: {self.text()}"

    def text(self) -> str:
        return self.log.read_text(errors="replace") if self.log.exists() else "<no log>"

    def stop(self) -> None:
        self.process.terminate()
        try:
            self.process.wait(20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


@pytest.fixture
def services(tmp_path: Path) -> Iterator[Callable[[], Service]]:
    started: List[Service] = []

    def start() -> Service:
        started.append(Service(tmp_path / f"service{len(started)}"))
        return started[-1]

    yield start
    for service in started:
        service.stop()


@pytest.fixture
def service(services: Callable[[], Service]) -> Service:
    return services()
