"""A client of the host link with nothing but Python's own library, written from docs/host-link.md.

wire_client.py SOCKET asks the echo service there and checks what it answers. Exits with 0 if all is well.
"""
import array
import fcntl
import os
import socket
import struct
import sys

MESSAGE, AWAITS_REPLY, REPLY = 0, 1, 2
LARGE = 1


def pad(data):
    return data + bytes(-len(data) % 8)


def with_offsets(data, ends):
    for size, code in ((1, "B"), (2, "H"), (4, "I")):
        if len(data) + size * len(ends) < 1 << 8 * size:
            return data + struct.pack(f"<{len(ends)}{code}", *ends)


def elements(items):
    data, ends = b"", []
    for item in items:
        data = pad(data) + item
        ends.append(len(data))
    return with_offsets(data, ends)


class Fd(int):
    """The index of a descriptor."""


def write_value(value):
    for kind, type_, data in (
        (bool, "b", lambda: bytes([value])),
        (Fd, "h", lambda: struct.pack("<i", value)),
        (int, "x", lambda: struct.pack("<q", value)),
        (float, "d", lambda: struct.pack("<d", value)),
        (str, "s", lambda: value.encode() + b"\0"),
        (bytes, "ay", lambda: value),
        (list, "av", lambda: elements(map(write_value, value))),
        (dict, "a{sv}", lambda: write_dictionary(value)),
    ):
        if isinstance(value, kind):
            return data() + b"\0" + type_.encode()


def write_dictionary(dictionary):
    entries = []
    for key, value in dictionary.items():
        name = key.encode() + b"\0"
        entries.append(with_offsets(pad(name) + write_value(value), [len(name)]))
    return elements(entries)


def last_offset(data):
    size = 1 if len(data) <= 0xFF else 2 if len(data) <= 0xFFFF else 4
    return int.from_bytes(data[-size:], "little"), size


def read_elements(data):
    if not data:
        return []
    contents, size = last_offset(data)
    ends = [int.from_bytes(data[i:i + size], "little") for i in range(contents, len(data), size)]
    starts = [0] + [end + -end % 8 for end in ends]
    return [data[start:end] for start, end in zip(starts, ends)]


def read_value(data):
    data, _, type_ = data.rpartition(b"\0")
    if type_ in (b"x", b"t", b"d", b"h"):
        value = struct.unpack({b"x": "<q", b"t": "<Q", b"d": "<d", b"h": "<i"}[type_], data)[0]
        return Fd(value) if type_ == b"h" else value
    return {b"b": lambda: data == b"\1", b"s": lambda: data[:-1].decode(), b"ay": lambda: data,
            b"av": lambda: list(map(read_value, read_elements(data))),
            b"a{sv}": lambda: read_dictionary(data)}[type_]()


def read_dictionary(data):
    result = {}
    for entry in read_elements(data):
        end, size = last_offset(entry)
        result[entry[:end - 1].decode()] = read_value(entry[end + -end % 8:-size])
    return result


def send(link, kind, serial, dictionary, descriptors=()):
    body, flags, descriptors = write_dictionary(dictionary), 0, list(descriptors)
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
    return kind, serial, read_dictionary(body), descriptors


def main():
    link = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
    link.settimeout(20)
    link.connect(sys.argv[1])
    # The document's worked example.
    assert write_dictionary({"There": ""}) == bytes.fromhex("5468657265000000 000073 06 0c")
    memory = os.memfd_create("surface")
    os.write(memory, b"pixels")
    message = {"yes": True, "number": -5, "rate": 0.5, "name": "Gäste", "sound": b"\0\1", "empty": {},
               "list": ["a", 1, []], "surface": {"memory": Fd(0), "width": 1280}}
    for serial, large in ((7, b""), (8, bytes(range(256)) * 400)):
        send(link, AWAITS_REPLY, serial, {**message, "large": large}, [memory])
        kind, answered, reply, descriptors = receive(link)
        assert (kind, answered, reply) == (REPLY, serial, {**message, "large": large}), reply
        assert os.pread(descriptors[0], 6, 0) == b"pixels"


main()
