"""Unpacks the kernel of a bzImage, which an emulated processor would take half a minute for: vmlinux.py BZIMAGE VMLINUX."""
import lzma
import struct
import sys

with open(sys.argv[1], "rb") as file:
    image = file.read()
# Where the payload lies, by the boot protocol: setup_sects, payload_offset, payload_length.
begin = ((image[0x1F1] or 4) + 1) * 512 + struct.unpack_from("<I", image, 0x248)[0]
payload = image[begin:begin + struct.unpack_from("<I", image, 0x24C)[0]]
if not payload.startswith(b"\xfd7zXZ\0"):
    sys.exit(f"{sys.argv[1]}: not packed by xz")
with open(sys.argv[2], "wb") as file:
    file.write(lzma.LZMADecompressor().decompress(payload))
