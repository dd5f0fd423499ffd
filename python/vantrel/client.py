"""A client of the Vantrel service on this host."""
from __future__ import annotations

import collections
import ctypes
import itertools
import os
import threading
import time
from dataclasses import dataclass
from typing import Deque, Iterator, Optional, Union

from . import _capi

Payload = Union[bytes, bytearray, memoryview, str]

DELIVERED = 102
NOT_DELIVERED = 103


class VantrelError(Exception):
    """A failure the library reported: `status` is its number, `reason` its words."""

    def __init__(self, status: int, reason: str) -> None:
        super().__init__(f"{reason} (status {status})")
        self.status = status
        self.reason = reason


class RegistrationFailed(VantrelError):
    """The service could not be reached or refused the client name."""


class SendFailed(VantrelError):
    """The message did not reach the service, or no acknowledgement came in time."""


class NotDelivered(VantrelError):
    """The service answered that the message (or copy request) could not be delivered."""


class ClientClosed(VantrelError):
    """The client was closed, or its session ended (terminated, turned off, service gone)."""


@dataclass(frozen=True)
class CopyResult:
    """How a file copy ended: `state` 0 is success; `path` names the failing file, if any."""

    state: int
    path: str

    @property
    def ok(self) -> bool:
        return self.state == 0


# Not frozen: a frozen dataclass's constructor costs several times more, and
# one is built for every message received.
@dataclass
class Message:
    """One received message. `sender` is an address ("client@host") that can be answered."""

    id: int
    type: int
    sender: str
    data: bytes
    subtype: int = 0
    recipient: str = ""
    copy: Optional[CopyResult] = None

    @property
    def text(self) -> str:
        """The data as UTF-8 text (undecodable bytes replaced)."""
        return self.data.decode("utf-8", errors="replace")


def _text(value: object, what: str) -> bytes:
    if not isinstance(value, str) and isinstance(value, os.PathLike):
        value = os.fspath(value)
    if not isinstance(value, str):
        raise TypeError(f"{what} must be a str, not {type(value).__name__}")
    encoded = value.encode("utf-8")
    if b"\0" in encoded:
        raise ValueError(f"{what} must not contain a NUL character")
    return encoded


def _payload(data: object) -> bytes:
    if isinstance(data, str):
        return data.encode("utf-8")
    if isinstance(data, (bytes, bytearray, memoryview)):
        return bytes(data)
    raise TypeError(f"data must be bytes or str, not {type(data).__name__}")


def _decode(text: Optional[bytes]) -> str:
    return text.decode("utf-8", errors="replace") if text else ""


def _message(raw: _capi.MessageStruct) -> Message:
    copy = None
    if raw.copy_state >= 0:
        copy = CopyResult(raw.copy_state, _decode(raw.copy_path))
    return Message(
        id=raw.id,
        type=raw.type,
        sender=f"{_decode(raw.from_client)}@{_decode(raw.from_host)}",
        data=ctypes.string_at(raw.data, raw.length) if raw.length else b"",
        subtype=raw.subtype,
        recipient=f"{_decode(raw.to_client)}@{_decode(raw.to_host)}",
        copy=copy,
    )


class Client:
    """One registered client of the local service.

    with vantrel.Client("recorder") as bus:
        bus.send("player@lg02", "start")
        for message in bus:
            print(message.sender, message.text)

    Threads: one thread at a time may call send, wait, fetch, copy and iterate;
    notify, post, turn_off, terminate and close may be called from any thread
    meanwhile (terminate and close end another thread's wait). Use one client per
    thread for more. Closing waits for calls in progress, so no call ever runs on
    a released handle.
    """

    def __init__(self, name: str, port: int = 0) -> None:
        """Registers `name` with the service on clients port `port` (0: VANTREL_CLIENT_PORT or 9010)."""
        encoded = _text(name, "name")
        if not isinstance(port, int) or not 0 <= port <= 65535:
            raise ValueError(f"port must be an int from 0 to 65535, not {port!r}")
        self._lib = _capi.library()
        self._handle: Optional[int] = self._lib.vantrel_client_new()
        if not self._handle:
            raise MemoryError("no memory for a client handle")
        self._busy = 0
        self._lock = threading.Lock()
        self._closing: Optional[threading.Event] = None
        self._user = Client._Use(self)
        self._backlog: Deque[Message] = collections.deque()
        self._ids = itertools.count(1)
        self._id_lock = threading.Lock()
        status = self._lib.vantrel_client_init(self._handle, encoded, port)
        if status != _capi.OK:
            reason = self._reason()
            self.close()
            raise RegistrationFailed(status, reason)

    # ---- life ------------------------------------------------------------------
    def __enter__(self) -> "Client":
        return self

    def __exit__(self, *exc_info: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", None):
            try:
                self.close()
            except Exception:  # the interpreter may be shutting down
                pass

    def __repr__(self) -> str:
        return f"<vantrel.Client {self.whoami() if self._handle else 'closed'}>"

    def close(self) -> None:
        """Ends the session and releases the client; harmless when repeated."""
        with self._lock:
            handle, self._handle = self._handle, None
            if handle is None:
                return
            self._closing = threading.Event()
            if self._busy == 0:
                self._closing.set()
        # Ends waits of other threads, then lets their calls return before the
        # handle goes away under them.
        self._lib.vantrel_client_terminate(handle)
        self._closing.wait()
        self._lib.vantrel_client_free(handle)

    def terminate(self) -> None:
        """Ends the session; later calls raise ClientClosed. close() still releases it."""
        with self._use() as handle:
            self._lib.vantrel_client_terminate(handle)

    def turn_off(self) -> None:
        """Ends every wait at once, which ends the session."""
        with self._use() as handle:
            self._lib.vantrel_client_turn_off(handle)

    # ---- identity --------------------------------------------------------------
    def whoami(self) -> str:
        """This client's address as others reach it, e.g. "recorder@lg01~9011"."""
        with self._use() as handle:
            return _decode(self._lib.vantrel_client_whoami(handle))

    @property
    def local_host(self) -> str:
        """The service's host name."""
        with self._use() as handle:
            return _decode(self._lib.vantrel_client_local_host(handle))

    # ---- sending ---------------------------------------------------------------
    def send(self, address: str, data: Payload) -> None:
        """Sends and returns once the service reports the message delivered.

        Raises NotDelivered when it reports otherwise, SendFailed when the
        message did not reach the service or no answer came in time.
        """
        to, payload = _text(address, "address"), _payload(data)
        with self._use() as handle:
            self._check(self._lib.vantrel_client_send(handle, to, payload, len(payload)))

    def notify(self, address: str, data: Payload) -> None:
        """Sends without any response; returns once the service has the message."""
        to, payload = _text(address, "address"), _payload(data)
        with self._use() as handle:
            self._check(self._lib.vantrel_client_notify(handle, to, payload, len(payload)))

    def post(self, id: int, address: str, data: Payload) -> None:
        """Sends without waiting; if it cannot be delivered, a type-103 Message with `id` arrives later."""
        to, payload = _text(address, "address"), _payload(data)
        with self._use() as handle:
            self._check(self._lib.vantrel_client_post(handle, self._id(id), to, payload, len(payload)))

    def copy(self, local: Union[str, os.PathLike], host: str, remote: str, *, timeout: Optional[float] = None,
             id: Optional[int] = None) -> CopyResult:
        """Copies the file `local` to `remote` on `host` ("lg02" or "lg02~9011") and waits for the result.

        Returns the CopyResult (check .ok). Raises NotDelivered when the link to
        the host broke and TimeoutError when no result came within `timeout`
        seconds. Messages that arrive meanwhile are kept for wait() and iteration.
        """
        source, where, target = _text(local, "local path"), _text(host, "host"), _text(remote, "remote path")
        if id is None:
            with self._id_lock:
                id = next(self._ids)
        with self._use() as handle:
            self._check(self._lib.vantrel_client_copy(handle, self._id(id), source, where, target))
        deadline = None if timeout is None else time.monotonic() + timeout
        held = []
        try:
            while True:
                left = None if deadline is None else max(0.0, deadline - time.monotonic())
                message = self._receive(left)
                if message is None:
                    raise TimeoutError(f"no copy result within {timeout} s")
                if message.id == id and message.type == DELIVERED and message.copy is not None:
                    return message.copy
                if message.id == id and message.type == NOT_DELIVERED:
                    raise NotDelivered(_capi.NOT_DELIVERED, message.text)
                held.append(message)
        finally:
            self._backlog.extend(held)

    # ---- receiving -------------------------------------------------------------
    def wait(self, timeout: Optional[float] = None) -> Optional[Message]:
        """The next message, waiting up to `timeout` seconds (None: no limit); None on time-out.

        Raises ClientClosed when the session ends.
        """
        if self._backlog:
            return self._backlog.popleft()
        return self._receive(timeout)

    def fetch(self) -> Optional[Message]:
        """The next message if one waits, else None; never blocks."""
        if self._backlog:
            return self._backlog.popleft()
        with self._use() as handle:
            raw = ctypes.POINTER(_capi.MessageStruct)()
            status = self._lib.vantrel_client_fetch(handle, ctypes.byref(raw))
            if status == _capi.NO_MESSAGE:
                return None
            self._check(status)
            return _message(raw.contents)

    def __iter__(self) -> Iterator[Message]:
        """Every message until the session ends."""
        while True:
            try:
                message = self.wait()
            except ClientClosed:
                return
            if message is not None:
                yield message

    # ---- internals -------------------------------------------------------------
    def _receive(self, timeout: Optional[float]) -> Optional[Message]:
        if timeout is not None and (not isinstance(timeout, (int, float)) or timeout < 0):
            raise ValueError(f"timeout must be None or seconds >= 0, not {timeout!r}")
        # A C long is 32 bits on Windows: longer waits are cut to about 24 days.
        milliseconds = -1 if timeout is None else min(int(timeout * 1000), 2**31 - 1)
        with self._use() as handle:
            raw = ctypes.POINTER(_capi.MessageStruct)()
            status = self._lib.vantrel_client_wait(handle, milliseconds, ctypes.byref(raw))
            if status == _capi.TIMEOUT:
                return None
            self._check(status)
            return _message(raw.contents)

    def _id(self, id: int) -> int:
        if not isinstance(id, int) or not 0 <= id <= 0xFFFFFFFF:
            raise ValueError(f"message id must be an int from 0 to 4294967295, not {id!r}")
        return id

    def _reason(self) -> str:
        buffer = ctypes.create_string_buffer(512)
        self._lib.vantrel_client_error_text(self._handle, buffer, len(buffer))
        return _decode(buffer.value)

    def _check(self, status: int) -> None:
        if status == _capi.OK:
            return
        reason = self._reason()
        if status == _capi.INVALID_ARGUMENT:
            raise ValueError(reason)
        if status == _capi.NOT_INITIALISED:
            raise ClientClosed(status, reason)
        if status == _capi.NOT_DELIVERED:
            raise NotDelivered(status, reason)
        if status in (_capi.SEND_FAILED, _capi.TIMEOUT):
            raise SendFailed(status, reason)
        raise VantrelError(status, reason)

    class _Use:
        """Holds the handle for the calls in progress; keeps no state of its own
        per call, so one object serves every thread."""

        def __init__(self, client: "Client") -> None:
            self.client = client

        def __enter__(self) -> int:
            client = self.client
            with client._lock:
                if client._handle is None:
                    raise ClientClosed(_capi.NOT_INITIALISED, "the client is closed")
                client._busy += 1
                return client._handle

        def __exit__(self, *exc_info: object) -> None:
            client = self.client
            with client._lock:
                client._busy -= 1
                if client._busy == 0 and client._closing is not None:
                    client._closing.set()

    def _use(self) -> "Client._Use":
        """The handle for one call: close() waits until the call has returned."""
        return self._user
