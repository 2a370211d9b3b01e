#!/usr/bin/env python3
"""A tracking service and its client on impacket's DCE/RPC.

  impacket_peer.py client HOST DEVICE   calls the service; exit code 0 when all is as it should be
  impacket_peer.py server HOST          serves the mapping (1, 2, 3) with angles 0.25, -0.5, 0.75
"""

import struct
import sys

from impacket.dcerpc.v5 import rpcrt, transport
from impacket.uuid import uuidtup_to_bin

interface = ("fa527ef1-b1ac-48eb-b7e3-d2893784fa6f", "1.1")


def connect(host):
    dce = transport.DCERPCTransportFactory(f"ncacn_ip_tcp:{host}[5437]").get_dce_rpc()
    dce.connect()
    return dce


def call(dce, procedure, stub):
    dce.call(procedure, stub)
    return dce.recv()


def fault_of(dce, procedure, stub):
    try:
        call(dce, procedure, stub)
    except rpcrt.DCERPCException as fault:
        return str(fault)
    return "no fault"


def client(host, device):
    dce = connect(host)
    dce.bind(uuidtup_to_bin(interface))
    key = struct.pack("<3i", device, 0, 0)
    engine, sensor, found = struct.unpack("<3i", call(dce, 20, key)[:12])
    units, known = struct.unpack("<2i", call(dce, 14, struct.pack("<2i", engine, 5))[:8])
    reply = call(dce, 37, key + struct.pack("<3i", -1, 2, 3))
    count, *angles, fetched = struct.unpack("<I3fi", reply[:20])
    print("found", found, "sensor", sensor, "units", units, "angles", fetched, angles)
    assert (found, known, fetched, count) == (1, 1, 1, 3)
    print("procedure 41:", fault_of(dce, 41, b""))
    print("short stub:", fault_of(dce, 20, b"1234"))
    assert "nca_s_op_rng_error" in fault_of(dce, 3, b"")
    other = connect(host)
    try:
        other.bind(uuidtup_to_bin(("12345678-1234-1234-1234-123456789012", "1.0")))
    except rpcrt.DCERPCException as refusal:
        print("another interface:", refusal)
        return
    sys.exit("another interface was accepted")


def server(host):
    serving = rpcrt.DCERPCServer()
    ours = struct.pack("<3i", 1, 2, 3)

    def get_mapping(stub):
        return struct.pack("<2i?", 7, 4, stub[:12] == ours)

    def get_attribute(stub):
        return struct.pack("<i?", 3, stub[:8] == struct.pack("<2i", 7, 5))

    def get_floats(stub):
        wanted = ours + struct.pack("<3i", -1, 2, 3)
        return struct.pack("<I3f?", 3, 0.25, -0.5, 0.75, stub[:24] == wanted)

    serving.addCallbacks(interface, "5437", {20: get_mapping, 14: get_attribute, 37: get_floats})
    serving.setListenAddress(host) if hasattr(serving, "setListenAddress") else None
    serving.setListenPort(5437)
    print("ready", flush=True)
    serving.run()


if __name__ == "__main__":
    if sys.argv[1] == "client":
        client(sys.argv[2], int(sys.argv[3]))
    else:
        server(sys.argv[2])
