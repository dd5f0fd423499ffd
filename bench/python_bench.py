#!/usr/bin/env python3
"""Python's cost over the C++ client: one-way and acknowledged 64-byte sends through
one local service, sender and receiver in separate Python processes.

    PYTHONPATH=python VANTREL_LIBRARY=build/release/libvantrel.so \
        python3 bench/python_bench.py build/release/programs/vantrel [seconds]

Compare with `vantrel-bench throughput latency` (local, 64 B) of the same build.
"""
import multiprocessing
import os
import socket
import statistics
import subprocess
import sys
import tempfile
import time

import vantrel

PAYLOAD = b"x" * 63 + b"\0"


def free_port() -> int:
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def receive(port: int, ready, counts) -> None:
    with vantrel.Client("py-receiver", port) as bus:
        ready.put(bus.whoami())
        count = 0
        for message in bus:
            if message.data == b"end":
                counts.put(count)
                count = 0
            else:
                count += 1


def main() -> None:
    program, seconds = os.path.abspath(sys.argv[1]), float(sys.argv[2]) if len(sys.argv) > 2 else 3.0
    folder = tempfile.mkdtemp()
    port = free_port()
    service = subprocess.Popen([program, "--clients-port", str(port), "--net-port", str(free_port()),
                                "--log-file", os.path.join(folder, "v.log"), "--log-level", "warning"],
                               cwd=folder, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 10
        while True:
            try:
                probe = vantrel.Client("py-probe", port)
                break
            except vantrel.RegistrationFailed:
                if time.monotonic() > deadline:
                    raise
                time.sleep(0.05)
        probe.close()
        ready, counts = multiprocessing.Queue(), multiprocessing.Queue()
        receiver = multiprocessing.Process(target=receive, args=(port, ready, counts), daemon=True)
        receiver.start()
        address = ready.get(timeout=10)
        with vantrel.Client("py-sender", port) as bus:
            sent, start = 0, time.perf_counter()
            while time.perf_counter() - start < seconds:
                for _ in range(1000):
                    bus.notify(address, PAYLOAD)
                sent += 1000
            bus.send(address, b"end")
            arrived = counts.get(timeout=120)
            elapsed = time.perf_counter() - start
            print(f"one-way 64 B: {arrived / elapsed:,.0f} msg/s ({arrived} of {sent} arrived)")
            latencies, start = [], time.perf_counter()
            while time.perf_counter() - start < seconds:
                begin = time.perf_counter()
                bus.send(address, PAYLOAD)
                latencies.append(time.perf_counter() - begin)
            bus.send(address, b"end")
            counts.get(timeout=60)
            latencies.sort()
            print(f"acknowledged 64 B: {len(latencies) / seconds:,.0f} msg/s, "
                  f"p50 {statistics.median(latencies) * 1e6:.0f} us, "
                  f"p99 {latencies[int(len(latencies) * 0.99)] * 1e6:.0f} us")
    finally:
        service.terminate()
        service.wait(20)


if __name__ == "__main__":
    main()
