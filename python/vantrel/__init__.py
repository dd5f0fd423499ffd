"""Python client of the Vantrel message bus, over libvantrel's C interface.

    import vantrel
    with vantrel.Client("collector") as bus:
        for message in bus:
            print(message.sender, message.text)
"""
from __future__ import annotations

from . import _capi
from .client import (
    DELIVERED,
    NOT_DELIVERED,
    Client,
    ClientClosed,
    CopyResult,
    Message,
    NotDelivered,
    RegistrationFailed,
    SendFailed,
    VantrelError,
)

__all__ = [
    "Client",
    "ClientClosed",
    "CopyResult",
    "DELIVERED",
    "Message",
    "NOT_DELIVERED",
    "NotDelivered",
    "RegistrationFailed",
    "SendFailed",
    "VantrelError",
    "library_version",
]
__version__ = "0.1.0"


def library_version() -> str:
    """The version of the libvantrel in use."""
    return _capi.library().vantrel_version().decode()
