"""What can be wrong with a firmware image; by itself, for programs that only name it."""

FAULTS = {
    "signature": "signed by somebody else (FwDSCheckFailed)",
    "payload": "another firmware than the one that was signed (FwDSCheckFailed)",
    "damaged": "its second half is missing (UnpackFailed)",
    "bootloader": "its boot loader is signed by somebody else (BootloaderDSCheckFailed)",
    "sku": "made for another board (UnsupportedSKU)",
    "version": "without a version (UnknownSwVersion)",
}
"""What can be wrong with an image, and what the controller gets to hear of it."""
