"""The lab's own certificate authority: a root and whatever server certificates a test asks for."""

import datetime
import os
import ssl
import subprocess
from dataclasses import dataclass
from typing import Optional, Sequence

from cryptography import x509
from cryptography.hazmat.primitives import hashes, serialization
from cryptography.hazmat.primitives.asymmetric import ec
from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

ROOT_NAME = "Quill Lab Root"
_DAY = datetime.timedelta(days=1)


def _now() -> datetime.datetime:
    return datetime.datetime.utcnow().replace(microsecond=0)


def _name(common_name: str) -> x509.Name:
    return x509.Name([x509.NameAttribute(NameOID.ORGANIZATION_NAME, "Quill Lab"),
                      x509.NameAttribute(NameOID.COMMON_NAME, common_name)])


def _pem(certificate: x509.Certificate) -> str:
    return certificate.public_bytes(serialization.Encoding.PEM).decode()


@dataclass(frozen=True)
class Leaf:
    """A server's certificate and private key as PEM texts."""

    certificate: str
    key: str


class Authority:
    """A root of its own, made new for every lab, and the certificates it signs."""

    def __init__(self) -> None:
        self._key = ec.generate_private_key(ec.SECP256R1())
        name = _name(ROOT_NAME)
        self._root = (
            x509.CertificateBuilder().subject_name(name).issuer_name(name)
            .public_key(self._key.public_key()).serial_number(x509.random_serial_number())
            .not_valid_before(_now() - 3650 * _DAY).not_valid_after(_now() + 3650 * _DAY)
            .add_extension(x509.BasicConstraints(ca=True, path_length=1), critical=True)
            .add_extension(x509.SubjectKeyIdentifier.from_public_key(self._key.public_key()),
                           critical=False)
            .sign(self._key, hashes.SHA256()))

    @property
    def root_pem(self) -> str:
        """The root certificate."""
        return _pem(self._root)

    def trusted_files(self) -> dict[str, str]:
        """The content of a CA folder that trusts this root: the file and its look-up name."""
        done = subprocess.run(["openssl", "x509", "-noout", "-subject_hash"], input=self.root_pem,
                              text=True, capture_output=True, check=True)
        return {"quill-lab-root.pem": self.root_pem, f"{done.stdout.strip()}.0": self.root_pem}

    def leaf(self, names: Sequence[str], *, common_name: Optional[str] = None,
             valid_from: float = -1.0, valid_to: float = 365.0, san: bool = True,
             self_signed: bool = False) -> Leaf:
        """A server certificate for `names`, valid from and to so many days from now.

        Without `san` there is only the common name; `self_signed` leaves the root out of it.
        """
        key = ec.generate_private_key(ec.SECP256R1())
        subject = _name(common_name or names[0])
        builder = (
            x509.CertificateBuilder().subject_name(subject)
            .issuer_name(subject if self_signed else self._root.subject)
            .public_key(key.public_key()).serial_number(x509.random_serial_number())
            .not_valid_before(_now() + valid_from * _DAY).not_valid_after(_now() + valid_to * _DAY)
            .add_extension(x509.BasicConstraints(ca=False, path_length=None), critical=True)
            .add_extension(x509.ExtendedKeyUsage([ExtendedKeyUsageOID.SERVER_AUTH]),
                           critical=False))
        if san:
            alternatives = x509.SubjectAlternativeName([x509.DNSName(name) for name in names])
            builder = builder.add_extension(alternatives, critical=False)
        certificate = builder.sign(key if self_signed else self._key, hashes.SHA256())
        key_pem = key.private_bytes(serialization.Encoding.PEM,
                                    serialization.PrivateFormat.PKCS8,
                                    serialization.NoEncryption()).decode()
        return Leaf(_pem(certificate), key_pem)


def server_context(leaf: Leaf) -> ssl.SSLContext:
    """A TLS server context for the certificate; the key is never written to a disk."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.minimum_version = ssl.TLSVersion.TLSv1_2
    fd = os.memfd_create("quill-lab-leaf")
    try:
        os.write(fd, (leaf.key + leaf.certificate).encode())
        context.load_cert_chain(f"/proc/self/fd/{fd}")
    finally:
        os.close(fd)
    return context


class Certificates:
    """The TLS side of one server: its certificate may change while it runs, and the names that
    clients asked for are kept."""

    def __init__(self, leaf: Leaf) -> None:
        self._current = server_context(leaf)
        self.asked_names: list[Optional[str]] = []
        self.context = server_context(leaf)
        self.context.sni_callback = self._choose

    def use(self, leaf: Leaf) -> None:
        """Shows this certificate from the next connection on."""
        self._current = server_context(leaf)

    def _choose(self, connection: ssl.SSLObject, name: Optional[str], _: ssl.SSLContext) -> None:
        self.asked_names.append(name)
        connection.context = self._current
