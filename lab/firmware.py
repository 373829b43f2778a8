"""Firmware images for the simulated device: made and signed here, checked by its "upgrade.sh".

The maker's key is made anew for every lab; the device has its public half.
"""

import hashlib
import io
import random
import tarfile
from typing import Optional, Sequence

from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec

from lab.firmwarefaults import FAULTS

KEY_FILE = "/etc/velmora/firmware-key.pem"
"""The maker's public key on the device."""
_SIZE = 64 * 1024


class Firmware:
    """The maker: signs images."""

    def __init__(self) -> None:
        self._key = ec.generate_private_key(ec.SECP256R1())

    @property
    def public_key(self) -> str:
        """The PEM text that the device checks images with."""
        return self._key.public_key().public_bytes(
            serialization.Encoding.PEM,
            serialization.PublicFormat.SubjectPublicKeyInfo).decode()

    def _signature(self, data: bytes, forged: bool = False) -> bytes:
        key = ec.generate_private_key(ec.SECP256R1()) if forged else self._key
        return key.sign(data, ec.ECDSA(hashes.SHA256()))

    def image(self, version: str, *, size: int = _SIZE, bootloader: bool = False,
              skus: Sequence[int] = range(11),
              fault: Optional[str] = None) -> bytes:
        """An image with `size` bytes of firmware for these variants of the board; `fault` is one of
        `FAULTS`."""
        assert fault is None or fault in FAULTS, fault
        payload = random.Random(version).randbytes(size)
        lines = [] if fault == "version" else [f"version={version}"]
        lines += [f"skus={' '.join(map(str, [99] if fault == 'sku' else skus))}",
                  f"sha256={hashlib.sha256(payload).hexdigest()}"]
        manifest = ("\n".join(lines) + "\n").encode()
        parts = {"manifest": manifest,
                 "manifest.sig": self._signature(manifest, fault == "signature"),
                 "firmware.bin": payload[::-1] if fault == "payload" else payload}
        if bootloader or fault == "bootloader":
            loader = b"loader " + version.encode()
            parts["bootloader.bin"] = loader
            parts["bootloader.sig"] = self._signature(loader, fault == "bootloader")
        data = _packed(parts)
        return data[:len(data) // 2] if fault == "damaged" else data


def _packed(parts: dict[str, bytes]) -> bytes:
    """A tar of these files."""
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.USTAR_FORMAT) as archive:
        for name, data in parts.items():
            member = tarfile.TarInfo(name)
            member.size = len(data)
            archive.addfile(member, io.BytesIO(data))
    return buffer.getvalue()
