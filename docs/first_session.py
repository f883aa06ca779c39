#!/usr/bin/env python3
"""A first session with a server on this machine: python3 docs/first_session.py PORT

Shows the protocol in full: the checksum, frames, messages. Bootstraps a cluster, so use an empty server.
"""
import datetime
import socket
import struct
import sys


def crc32c(data):
    crc = 0xFFFFFFFF
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = crc >> 1 ^ (0x82F63B78 if crc & 1 else 0)
    return crc ^ 0xFFFFFFFF


def field(tag, value):
    value = struct.pack("<Q", value) if isinstance(value, int) else value
    return struct.pack("<HI", tag, len(value)) + value


def fields(message):
    """The (tag, value) pairs of a message, integers still as bytes."""
    found = []
    while message:
        tag, length = struct.unpack_from("<HI", message)
        found.append((tag, message[6 : 6 + length]))
        message = message[6 + length :]
    return found


def number(value):
    return int.from_bytes(value, "little")


def call(connection, method, payload):
    body = struct.pack("<BQH", 0, 1, len(method)) + method.encode()
    body += struct.pack("<I", len(payload)) + payload
    connection.sendall(b"KRPC" + body + struct.pack("<I", crc32c(body)))
    stream = connection.makefile("rb")
    head = stream.read(15)
    stream.read(number(head[13:15]))  # the method again
    answer = stream.read(number(stream.read(4)))
    stream.read(4)  # its checksum
    if head[4] == 2:
        raise RuntimeError(answer.decode())
    return fields(answer)


def region(region_id, start_key, end_key, store_id):
    peer = field(1, region_id + 1) + field(2, store_id) + field(3, 0)
    epoch = field(1, 1) + field(2, 1)
    return field(1, region_id) + field(2, start_key) + field(3, end_key) + field(4, epoch) + field(5, peer)


with socket.create_connection(("127.0.0.1", int(sys.argv[1]))) as server:
    first_id = number(call(server, "Pd.AllocId", field(1, 10))[0][1])
    print("ids from", first_id, "on")
    try:
        call(server, "Pd.GetRegion", field(1, b"apple"))
    except RuntimeError as error:
        print("before bootstrap:", error)
    store = field(1, 1) + field(2, b"s1.example:20160") + field(3, 0)
    everything = region(first_id, b"", b"", 1)
    answer = call(server, "Pd.Bootstrap", field(1, store) + field(2, everything))
    print("already bootstrapped:", bool(number(answer[0][1])))
    timestamp = number(call(server, "Pd.Tso", field(1, 1))[0][1])
    when = datetime.datetime.fromtimestamp((timestamp >> 18) / 1000, datetime.timezone.utc)
    print("timestamp", timestamp, "is", when.strftime("%Y-%m-%d %H:%M:%S"))
    routed = dict(call(server, "Pd.GetRegion", field(1, b"apple")))
    region_id = number(dict(fields(routed[1]))[1])
    address = dict(fields(routed[3]))[2].decode()
    print("key b'apple' is in region", region_id, "of store", address)
