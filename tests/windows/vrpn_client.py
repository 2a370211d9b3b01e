#!/usr/bin/env python3
"""A VRPN client over TCP: vrpn_client.py HOST PORT DEVICE POSES

Connects as soon as it can, asks for the device as VRPN clients do, and prints a pong and that many
poses, each with its age in seconds."""

import socket
import struct
import sys
import time

COOKIE = b"vrpn: ver. 07.38  0".ljust(24, b"\0")
PING = 16  # the number that this client gives to the type


def message(sender, kind, payload=b""):
    head = struct.pack(">IIIiiI", 24 + len(payload), 0, 0, sender, kind, 0)
    return (head + payload).ljust((24 + len(payload) + 7) // 8 * 8, b"\xff")


def described(number, kind, name):
    return message(number, kind, struct.pack(">I", len(name) + 1) + name.encode() + b"\0")


def connect(host, port):
    for _ in range(300):
        try:
            return socket.create_connection((host, port), timeout=30)
        except OSError:
            time.sleep(0.1)
    sys.exit("no server")


def main():
    host, port, device, poses = sys.argv[1], int(sys.argv[2]), sys.argv[3], int(sys.argv[4])
    connection = connect(host, port)
    connection.sendall(COOKIE + described(0, -1, device) + described(PING, -2, "vrpn_Base ping_message") +
                       message(0, PING))
    stream = connection.makefile("rb")
    if stream.read(24)[:14] != COOKIE[:14]:
        sys.exit("another version")
    types = {}
    while poses > 0:
        length, seconds, microseconds, sender, kind, _ = struct.unpack(">IIIiiI", stream.read(24))
        payload = stream.read((length + 7) // 8 * 8 - 24)
        if kind == -2:
            types[sender] = payload[4:].split(b"\0")[0].decode()
        elif types.get(kind) == "vrpn_Base pong_message":
            print("pong", flush=True)
        elif types.get(kind) == "vrpn_Tracker Pos_Quat":
            sensor, _, *numbers = struct.unpack(">ii7d", payload[:64])
            age = time.time() - seconds - microseconds / 1e6
            print(f"pose sensor {sensor} position {numbers[:3]} quaternion {numbers[3:]} age {age:.3f}", flush=True)
            poses -= 1


main()
