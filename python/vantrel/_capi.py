"""The C interface of libvantrel, declared for ctypes, and where the library is found."""
from __future__ import annotations

import ctypes
import ctypes.util
import os
import sys
import threading
from pathlib import Path
from typing import List, Optional

OK = 0
TIMEOUT = 1
NO_MESSAGE = 2
INVALID_ARGUMENT = 3
INTERNAL_ERROR = 4
NOT_INITIALISED = 15005
SEND_FAILED = 15007
NOT_DELIVERED = 15008


class MessageStruct(ctypes.Structure):
    """vantrel_message: read at once, it points into the handle's memory."""

    _fields_ = [
        ("id", ctypes.c_uint32),
        ("type", ctypes.c_short),
        ("subtype", ctypes.c_short),
        ("queue_type", ctypes.c_int),
        ("from_host", ctypes.c_char_p),
        ("from_client", ctypes.c_char_p),
        ("to_host", ctypes.c_char_p),
        ("to_client", ctypes.c_char_p),
        ("data", ctypes.c_void_p),
        ("length", ctypes.c_uint32),
        ("copy_state", ctypes.c_int),
        ("copy_path", ctypes.c_char_p),
    ]


_HANDLE = ctypes.c_void_p
_TEXT = ctypes.c_char_p
_DATA = ctypes.c_char_p
_PROTOTYPES = {
    "vantrel_version": (_TEXT, []),
    "vantrel_status_text": (_TEXT, [ctypes.c_int]),
    "vantrel_client_new": (_HANDLE, []),
    "vantrel_client_free": (None, [_HANDLE]),
    "vantrel_client_init": (ctypes.c_int, [_HANDLE, _TEXT, ctypes.c_ushort]),
    "vantrel_client_whoami": (_TEXT, [_HANDLE]),
    "vantrel_client_local_host": (_TEXT, [_HANDLE]),
    "vantrel_client_send": (ctypes.c_int, [_HANDLE, _TEXT, _DATA, ctypes.c_size_t]),
    "vantrel_client_notify": (ctypes.c_int, [_HANDLE, _TEXT, _DATA, ctypes.c_size_t]),
    "vantrel_client_post": (ctypes.c_int, [_HANDLE, ctypes.c_uint32, _TEXT, _DATA, ctypes.c_size_t]),
    "vantrel_client_copy": (ctypes.c_int, [_HANDLE, ctypes.c_uint32, _TEXT, _TEXT, _TEXT]),
    "vantrel_client_wait": (ctypes.c_int, [_HANDLE, ctypes.c_long, ctypes.POINTER(ctypes.POINTER(MessageStruct))]),
    "vantrel_client_fetch": (ctypes.c_int, [_HANDLE, ctypes.POINTER(ctypes.POINTER(MessageStruct))]),
    "vantrel_client_turn_off": (ctypes.c_int, [_HANDLE]),
    "vantrel_client_turn_on": (ctypes.c_int, [_HANDLE]),
    "vantrel_client_terminate": (None, [_HANDLE]),
    "vantrel_client_last_status": (ctypes.c_int, [_HANDLE]),
    "vantrel_client_error_text": (ctypes.c_size_t, [_HANDLE, ctypes.c_char_p, ctypes.c_size_t]),
}

_lock = threading.Lock()
_library: Optional[ctypes.CDLL] = None


def _file_names() -> List[str]:
    if sys.platform == "win32":
        return ["vantrel.dll", "libvantrel.dll"]
    if sys.platform == "darwin":
        return ["libvantrel.dylib"]
    return ["libvantrel.so", "libvantrel.so.0"]


def _candidates() -> List[str]:
    """Where the library may be, in the order it is tried."""
    found: List[str] = []
    explicit = os.environ.get("VANTREL_LIBRARY")
    if explicit:
        return [explicit]
    here = Path(__file__).resolve().parent
    folders = [here]
    try:
        # Written by the installation: where the library went, relative to here.
        from ._location import LIBRARY_DIR  # type: ignore[import-not-found]

        folders.append((here / LIBRARY_DIR).resolve())
    except ImportError:
        pass
    for folder in folders:
        found += [str(folder / name) for name in _file_names() if (folder / name).exists()]
    system = ctypes.util.find_library("vantrel")
    found += [system] if system else _file_names()[-1:]
    return found


def library() -> ctypes.CDLL:
    """The loaded library with its prototypes; loads it on first use.

    Raises OSError naming every place tried when none could be loaded.
    """
    global _library
    with _lock:
        if _library is not None:
            return _library
        errors = []
        for candidate in _candidates():
            try:
                loaded = ctypes.CDLL(candidate)
                break
            except OSError as error:
                errors.append(f"{candidate}: {error}")
        else:
            raise OSError("libvantrel could not be loaded (set VANTREL_LIBRARY to its path): " + "; ".join(errors))
        for name, (result, arguments) in _PROTOTYPES.items():
            function = getattr(loaded, name)
            function.restype = result
            function.argtypes = arguments
        _library = loaded
        return loaded
