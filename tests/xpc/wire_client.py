"""A client of the host link that is none of this system's, written from docs/host-link.md.

wire_client.py SOCKET asks the echo service there and checks that it answers byte for byte what GLib, the
judge of bodies, has written. Exits with 0 if all is well.
"""
import fcntl
import os
import socket
import struct
import sys

from gi.repository import GLib

AWAITS_REPLY, REPLY = 1, 2
LARGE = 1


def body_of(text):
    return GLib.Variant.parse(GLib.VariantType("a{sv}"), text, None, None).get_data_as_bytes().get_data()


def send(link, serial, body, descriptors):
    length, flags = len(body), 0
    if length > 65536:
        memory = os.memfd_create("body", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
        os.write(memory, body)
        fcntl.fcntl(memory, fcntl.F_ADD_SEALS,
                    fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_GROW | fcntl.F_SEAL_WRITE | fcntl.F_SEAL_SEAL)
        descriptors, body, flags = [*descriptors, memory], b"", LARGE
    header = struct.pack("<3sBBBHII", b"XPC", 1, AWAITS_REPLY, flags, len(descriptors), length, serial)
    socket.send_fds(link, [header + body], descriptors)


def receive(link):
    data, descriptors, _, _ = socket.recv_fds(link, 16 + 65536, 253)
    magic, version, kind, flags, count, length, serial = struct.unpack("<3sBBBHII", data[:16])
    assert (magic, version, kind, count) == (b"XPC", 1, REPLY, len(descriptors))
    body = os.pread(descriptors.pop(), length, 0) if flags & LARGE else data[16:]
    assert len(body) == length
    return serial, body, descriptors


link = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
link.settimeout(20)
link.connect(sys.argv[1])
# The document's worked example.
assert body_of("{'There': <''>}") == bytes.fromhex("5468657265000000 000073 06 0c")
memory = os.memfd_create("surface")
os.write(memory, b"pixels")
# Lengths at which offsets take 1, 2 and 4 bytes, and at which bodies are large.
for serial, length in enumerate((0, *range(220, 260), 30_000, 60_000, 1_500_000), start=7):
    sent = body_of("{'yes': <true>, 'number': <int64 -5>, 'time': <uint64 9>, 'rate': <0.5>, "
                   "'name': <'Gäste'>, 'sound': <@ay [0x01, 0x00, 0xff]>, 'empty': <@a{sv} {}>, "
                   "'list': <[<'a'>, <@av []>]>, 'surface': <{'memory': <handle 0>, 'width': <uint64 1>}>, "
                   f"'text': <'{'x' * length}'>, 'key{'k' * length}': <@ay []>}}")
    send(link, serial, sent, [memory])
    answered, body, descriptors = receive(link)
    assert (answered, body) == (serial, sent), length
    assert os.pread(descriptors[0], 6, 0) == b"pixels"
    os.close(descriptors[0])
