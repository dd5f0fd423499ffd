"""The Python package and the C interface against real services."""

import os
import subprocess
import threading

import pytest

import vantrel
from conftest import wait_until


@pytest.mark.parametrize("payload, expected", [(b"zero \x00 inside", b"zero \x00 inside"),
                                              ("UTF-8: \u00e9\u4e2d", b"UTF-8: \xc3\xa9\xe4\xb8\xad"), (bytearray(), b"")])
def test_send_reaches_the_waiting_client(service, payload, expected):
    with vantrel.Client("sender", service.clients_port) as sender, \
            vantrel.Client("receiver", service.clients_port) as receiver:
        assert receiver.wait(timeout=0.05) is None
        sender.send(receiver.whoami(), payload)
        message = receiver.wait(timeout=10)
        assert (message.data, message.text, message.sender, message.type) == (
            expected, expected.decode(), sender.whoami(), 2)
        sender.notify(receiver.whoami(), payload)
        assert receiver.wait(timeout=10).data == expected


def test_failures_raise(service):
    bus = vantrel.Client("failing", service.clients_port)
    nobody = f"nobody@{bus.local_host}"
    bus.post(42, nobody, "lost")
    answer = bus.wait(timeout=10)
    assert (answer.type, answer.id) == (vantrel.NOT_DELIVERED, 42)
    with pytest.raises(vantrel.NotDelivered) as refused:
        bus.send(nobody, "x")
    assert refused.value.status == 15008 and refused.value.reason
    cases = [(lambda: bus.send("no-at-sign", "x"), ValueError), (lambda: bus.send(nobody, None), TypeError),
             (lambda: bus.notify(nobody, 7), TypeError), (lambda: bus.post(-1, nobody, "x"), ValueError),
             (lambda: bus.send(None, "x"), TypeError), (lambda: bus.wait(timeout=-1), ValueError)]
    for call, error in cases:
        with pytest.raises(error):
            call()
    bus.terminate()
    for call in (lambda: bus.notify(nobody, "x"), bus.wait, bus.fetch):
        with pytest.raises(vantrel.ClientClosed):
            call()
    bus.close()
    with pytest.raises(vantrel.ClientClosed):
        bus.whoami()
    with pytest.raises(vantrel.RegistrationFailed, match="refused"):
        vantrel.Client("bad\nname", service.clients_port)


def test_copies_between_services(services, tmp_path):
    source, other = services(), services()
    (tmp_path / "data.txt").write_bytes(b"results" * 1000)
    with vantrel.Client("copier", source.clients_port) as bus:
        bus.post(500, f"nobody@{bus.local_host}", "held back while the copy waits")
        result = bus.copy(tmp_path / "data.txt", f"{bus.local_host}~{other.net_port}", str(tmp_path / "out.txt"),
                          timeout=30)
        assert result.ok and (tmp_path / "out.txt").read_bytes() == b"results" * 1000
        missing = bus.copy(str(tmp_path / "missing"), bus.local_host, str(tmp_path / "x"), timeout=30)
        assert not missing.ok and missing.state > 0 and "missing" in missing.path
        assert bus.fetch().id == 500


def test_iteration_and_threads(service):
    count = 20
    with vantrel.Client("collector", service.clients_port) as collector:
        address = collector.whoami()

        def generator(number: int) -> None:
            with vantrel.Client(f"generator{number}", service.clients_port) as bus:
                for index in range(count):
                    bus.send(address, f"{number}:{index}")

        threads = [threading.Thread(target=generator, args=(n,)) for n in range(4)]
        for thread in threads:
            thread.start()
        received = []
        for message in collector:
            received.append(message.text)
            if len(received) == 4 * count:
                collector.terminate()
        for thread in threads:
            thread.join()
        assert sorted(received) == sorted(f"{n}:{i}" for n in range(4) for i in range(count))

    # One thread waits while another sends on the same client, then closes it.
    bus = vantrel.Client("shared", service.clients_port)
    got, address = [], bus.whoami()
    waiter = threading.Thread(target=lambda: [got.append(message.text) for message in bus])
    waiter.start()
    for index in range(count):
        bus.notify(address, str(index))
    assert wait_until(lambda: len(got) == count)
    bus.close()
    waiter.join(10)
    assert not waiter.is_alive() and got == [str(i) for i in range(count)]


def test_c_interface(service):
    run = subprocess.run([os.environ["VANTREL_CAPI_TEST"], str(service.clients_port)], capture_output=True,
                         text=True, timeout=120)
    assert run.returncode == 0, run.stderr
