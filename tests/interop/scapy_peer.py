"""A BGP neighbour that a test scripts: its messages are made and read by scapy, so not by our encoder.

It opens one session from an address of its own, answers keepalives on a thread, and keeps what it hears: routes, the
end-of-RIB mark, the last NOTIFICATION. What it says is the test's business, byte by byte.
"""

import logging
import socket
import struct
import threading
import time

logging.getLogger("scapy").setLevel(logging.ERROR)

from scapy.contrib.bgp import (BGP, BGPCapFourBytesASN, BGPCapGeneric, BGPCapMultiprotocol, BGPHeader, BGPKeepAlive,  # noqa: E402
                               BGPNotification, BGPOpen, BGPOptParam, BGPPAAS4BytesPath, BGPPALocalPref, BGPPAOrigin,
                               BGPPathAttr, BGPUpdate)
from scapy.packet import Raw  # noqa: E402

from network import LIMIT, wait_until  # noqa: E402

OPEN, UPDATE, NOTIFICATION, KEEPALIVE, REFRESH = 1, 2, 3, 4, 5
ORIGIN, AS_PATH, NEXT_HOP, MED, LOCAL_PREF, ORIGINATOR_ID, CLUSTER_LIST = 1, 2, 3, 4, 5, 9, 10
MP_REACH, MP_UNREACH = 14, 15
WELL_KNOWN, OPTIONAL, OPTIONAL_TRANSITIVE, EXTENDED_LENGTH = 0x40, 0x80, 0xC0, 0x10
MDT = struct.pack(">HB", 1, 66)


def nlri(rd, source, group):
    """The octets of a route; rd is (AS, number)."""
    return struct.pack(">BHHI4s4s", 128, 0, *rd, socket.inet_aton(source), socket.inet_aton(group))


def attribute(flags, code, value):
    flags |= EXTENDED_LENGTH if len(value) > 255 else 0
    return BGPPathAttr(type_flags=flags, type_code=code, attribute=Raw(value) if value else None)


def reach(routes, next_hop):
    return attribute(OPTIONAL, MP_REACH, MDT + b"\4" + socket.inet_aton(next_hop) + b"\0" + b"".join(nlri(*r) for r in routes))


def unreach(routes):
    return attribute(OPTIONAL, MP_UNREACH, MDT + b"".join(nlri(*route) for route in routes))


def well_known():
    """The mandatory attributes of an internal neighbour."""
    return [BGPPathAttr(type_flags=WELL_KNOWN, type_code=ORIGIN, attribute=BGPPAOrigin(origin=0)),
            BGPPathAttr(type_flags=WELL_KNOWN, type_code=AS_PATH, attribute=BGPPAAS4BytesPath(segments=[])),
            BGPPathAttr(type_flags=WELL_KNOWN, type_code=LOCAL_PREF, attribute=BGPPALocalPref(local_pref=100))]


def update(attributes):
    return bytes(BGPHeader(type=UPDATE) / BGPUpdate(withdrawn_routes_len=0, path_attr=attributes))


def announcement(routes, next_hop, extra=()):
    return update([*well_known(), *extra, reach(routes, next_hop)])


def withdrawal(routes):
    return update([unreach(routes)])


def refresh():
    return bytes(BGPHeader(type=REFRESH) / Raw(struct.pack(">HBB", 1, 0, 66)))


class Peer:
    def __init__(self, address, target, local_as=65000, hold_time=30, capabilities=None, password=None):
        self.address = address
        self.target = target
        self.local_as = local_as
        self.hold_time = hold_time
        self.capabilities = capabilities
        self.routes = {}  # (rd octets, source) -> (group, attributes by code)
        self.counts = {}  # messages by type
        self.end_of_rib = False
        self.notification = None  # (code, subcode, data)
        self.open = None
        self.closed = False
        self.lock = threading.Lock()
        self.socket = None

    # ------------------------------------------------------------------------------------------------------- session

    def open_message(self):
        capabilities = self.capabilities
        if capabilities is None:
            capabilities = [BGPCapMultiprotocol(afi=1, safi=66), BGPCapGeneric(code=2, length=0, cap_data=b""),
                            BGPCapFourBytesASN(asn=self.local_as)]
        return bytes(BGPHeader(type=OPEN) / BGPOpen(
            my_as=min(self.local_as, 23456) if self.local_as > 65535 else self.local_as, hold_time=self.hold_time,
            bgp_id=self.address, opt_params=[BGPOptParam(param_type=2, param_value=one) for one in capabilities]))

    def connect(self):
        """Connects and says OPEN; whether the session comes up is another question."""
        def attempt():
            self.socket = socket.create_connection(self.target, LIMIT, source_address=(self.address, 0))
            return self.socket

        def tried():
            try:
                return attempt()
            except OSError:
                return None

        wait_until(tried, f"{self.address} connects")
        self.closed = False
        self.send(self.open_message())  # before anything that is heard is answered
        threading.Thread(target=self.listen, daemon=True).start()
        return self

    def establish(self):
        self.connect()
        wait_until(lambda: self.counts.get(KEEPALIVE) or self.closed, f"the session of {self.address} comes up")
        if self.closed:
            raise AssertionError(f"{self.address}: no session: {self.notification}")
        threading.Thread(target=self.keep_alive, daemon=True).start()
        return self

    def send(self, octets):
        try:
            self.socket.sendall(octets)
        except OSError:
            self.closed = True

    def keep_alive(self):
        while not self.closed:
            time.sleep(max(0.3, self.hold_time / 3))
            self.send(bytes(BGPKeepAlive()))

    def close(self):
        """Without a word, as a router that lost its power."""
        self.closed = True
        if self.socket:
            self.socket.close()

    def cease(self, subcode=2, data=b""):
        self.send(bytes(BGPHeader(type=NOTIFICATION) / BGPNotification(error_code=6, error_subcode=subcode, data=data)))
        self.close()

    def established(self):
        return not self.closed and self.counts.get(KEEPALIVE, 0) > 0

    # ------------------------------------------------------------------------------------------------------- hearing

    def listen(self):
        received = b""
        own = self.socket
        own.settimeout(None)
        try:
            while True:
                part = own.recv(65536)
                if not part:
                    break
                received += part
                while len(received) >= 19:
                    length = struct.unpack(">H", received[16:18])[0]
                    if len(received) < length:
                        break
                    self.hear(received[:length])
                    received = received[length:]
        except OSError:
            pass
        self.closed = True

    def hear(self, message):
        kind = message[18]
        with self.lock:
            if kind == UPDATE:
                self.hear_update(message)
            elif kind == NOTIFICATION:
                self.notification = (message[19], message[20], message[21:])
            elif kind == OPEN:
                self.open = BGP(message)
                self.send(bytes(BGPKeepAlive()))
            self.counts[kind] = self.counts.get(kind, 0) + 1

    def hear_update(self, message):
        attributes = {one.type_code: (one.type_flags, bytes(one.attribute) if one.attribute else b"")
                      for one in BGP(message)[BGPUpdate].path_attr}
        if MP_UNREACH in attributes:
            value = attributes[MP_UNREACH][1]
            if len(value) == 3:
                self.end_of_rib = True
            for key, _ in self.split(value[3:]):
                self.routes.pop(key, None)
        if MP_REACH in attributes:
            for key, group in self.split(attributes[MP_REACH][1][9:]):
                self.routes[key] = (group, attributes)

    @staticmethod
    def split(octets):
        assert len(octets) % 17 == 0, octets.hex()
        for at in range(0, len(octets), 17):
            assert octets[at] == 128
            yield (octets[at + 1:at + 9], socket.inet_ntoa(octets[at + 9:at + 13])), socket.inet_ntoa(octets[at + 13:at + 17])

    # --------------------------------------------------------------------------------------------------------- asking

    def groups(self):
        """{(AS, number, source): group} of what was heard and not withdrawn."""
        with self.lock:
            return {(*struct.unpack(">HI", rd[2:]), source): group for (rd, source), (group, _) in self.routes.items()}

    def attributes_of(self, rd, source):
        with self.lock:
            return self.routes[(struct.pack(">HHI", 0, *rd), source)][1]
