"""A client of the host link that is none of this system's, written from docs/host-link.md.

wire_client.py SOCKET asks the echo service there and checks what it answers. Exits with 0 if all is well.
"""
import array
import fcntl
import os
import socket
import struct
import sys

from gi.repository import GLib

MESSAGE, AWAITS_REPLY, REPLY = 0, 1, 2
LARGE = 1


def parse(text):
    return GLib.Variant.parse(GLib.VariantType("a{sv}"), text, None, None)


def send(link, kind, serial, dictionary, descriptors=()):
    body, flags, descriptors = dictionary.get_data_as_bytes().get_data(), 0, list(descriptors)
    length = len(body)
    if length > 65536:
        memory = os.memfd_create("body", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
        os.write(memory, body)
        fcntl.fcntl(memory, fcntl.F_ADD_SEALS,
                    fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_GROW | fcntl.F_SEAL_WRITE | fcntl.F_SEAL_SEAL)
        descriptors.append(memory)
        body, flags = b"", LARGE
    header = struct.pack("<3sBBBHII", b"XPC", 1, kind, flags, len(descriptors), length, serial)
    ancillary = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))] if descriptors else []
    link.sendmsg([header + body], ancillary)


def receive(link):
    data, descriptors, _, _ = socket.recv_fds(link, 16 + 65536, 253)
    magic, version, kind, flags, count, length, serial = struct.unpack("<3sBBBHII", data[:16])
    assert (magic, version, count) == (b"XPC", 1, len(descriptors))
    body = os.pread(descriptors.pop(), length, 0) if flags & LARGE else data[16:]
    assert len(body) == length
    return kind, serial, GLib.Variant.new_from_bytes(GLib.VariantType("a{sv}"), GLib.Bytes(body), False), descriptors


link = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
link.settimeout(20)
link.connect(sys.argv[1])
# The document's worked example.
assert parse("{'There': <''>}").get_data_as_bytes().get_data() == bytes.fromhex("5468657265000000 000073 06 0c")
memory = os.memfd_create("surface")
os.write(memory, b"pixels")
for serial, large in ((7, ""), (8, "x" * 100_000)):
    message = parse("{'yes': <true>, 'number': <int64 -5>, 'rate': <0.5>, 'name': <'Gäste'>, 'empty': <@a{sv} {}>, "
                    "'list': <[<'a'>, <int64 1>]>, 'surface': <{'memory': <handle 0>, 'width': <uint64 1280>}>, "
                    f"'large': <'{large}'>}}")
    send(link, AWAITS_REPLY, serial, message, [memory])
    kind, answered, reply, descriptors = receive(link)
    assert (kind, answered) == (REPLY, serial) and reply.is_normal_form(), kind
    assert reply.unpack() == message.unpack(), reply.print_(True)
    assert os.pread(descriptors[0], 6, 0) == b"pixels"
