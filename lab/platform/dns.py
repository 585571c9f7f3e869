# SPDX-License-Identifier: Apache-2.0
"""The lab's name servers: one table of names, served on several addresses, and their faults."""
import dataclasses
import fnmatch
import socket
import struct
import threading
import time

SERVERS = ("127.0.0.1", "127.0.0.2", "127.0.0.3")
TYPE_A, TYPE_CNAME, CLASS_IN = 1, 5, 1
NO_SUCH_NAME = 3
POINTER_TO_QUESTION = b"\xc0\x0c"


@dataclasses.dataclass
class Reply:
    """How a query is answered. The default is what a good server says."""
    addresses: list | None = None  # None: from the table
    cname: str | None = None       # an alias record before the addresses
    rcode: int | None = None       # None: 0, or 3 for an unknown name
    silent: bool = False
    delay: float = 0
    id_shift: int = 0              # added to the query's id
    is_query: bool = False         # leave the response bit clear
    owner: str | None = None       # of the records, instead of the name asked for
    compress: bool = True          # owner names as pointers to the question
    pointer_loop: bool = False     # the owner name of the first record points at itself
    cut_after: int | None = None   # bytes of the message


def encode_name(name):
    labels = [label.encode() for label in name.split(".") if label]
    return b"".join(bytes([len(label)]) + label for label in labels) + b"\0"


def decode_question(message):
    """(name, type, bytes of the question) of a query."""
    labels, at = [], 12
    while message[at]:
        labels.append(message[at + 1:at + 1 + message[at]].decode("latin-1"))
        at += 1 + message[at]
    kind, _class = struct.unpack_from("!HH", message, at + 1)
    return ".".join(labels), kind, message[12:at + 5]


def record(owner, kind, data):
    return owner + struct.pack("!HHIH", kind, CLASS_IN, 60, len(data)) + data


def build(query_id, question, name, reply):
    """The reply message, byte for byte as the Reply wants it."""
    owner = POINTER_TO_QUESTION if reply.compress else encode_name(name)
    if reply.owner:
        owner = encode_name(reply.owner)
    alias = encode_name(reply.cname) if reply.cname else b""
    records = [record(owner, TYPE_CNAME, alias)] if alias else []
    records += [record(alias or owner, TYPE_A, socket.inet_aton(one)) for one in reply.addresses]
    if reply.pointer_loop and records:
        at = 12 + len(question)
        loop = struct.pack("!H", 0xC000 | at)
        records[0] = loop + records[0][len(owner):]
    flags = (0 if reply.is_query else 0x8000) | 0x0180 | reply.rcode
    header = struct.pack("!6H", (query_id + reply.id_shift) & 0xFFFF, flags, 1, len(records), 0, 0)
    return (header + question + b"".join(records))[:reply.cut_after]


class NameServers:
    """Serves `names` ({name: [addresses]}) at port 53 of every address in SERVERS.

    queries: list of (server, name, type, id), in the order they came."""

    def __init__(self, names):
        self._standard_names = names
        self.reset()
        for server in SERVERS:
            listener = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            listener.bind((server, 53))
            threading.Thread(target=self._serve, args=(listener, server), daemon=True).start()

    def reset(self):
        self.names = dict(self._standard_names)
        self.queries = []
        self._rules = []

    def answer(self, reply, name="*", server="*"):
        """Answers queries for a name at a server (shell wildcards) with the Reply; the rule made
        last comes first."""
        self._rules.insert(0, (name, server, reply))

    def _serve(self, listener, server):
        while True:
            message, client = listener.recvfrom(4096)
            try:
                name, kind, question = decode_question(message)
            except (IndexError, struct.error):
                continue
            query_id = struct.unpack_from("!H", message)[0]
            self.queries.append((server, name, kind, query_id))
            reply = self._complete(self._rule(name, server), name, kind)
            if not reply.silent:
                time.sleep(reply.delay)
                listener.sendto(build(query_id, question, name, reply), client)

    def _rule(self, name, server):
        for name_pattern, server_pattern, reply in self._rules:
            if fnmatch.fnmatchcase(name, name_pattern) and fnmatch.fnmatchcase(
                    server, server_pattern):
                return reply
        return Reply()

    def _complete(self, reply, name, kind):
        known = self.names.get(name)
        addresses = (known or []) if reply.addresses is None else reply.addresses
        unknown = known is None and reply.addresses is None and not reply.cname
        rcode = reply.rcode if reply.rcode is not None else NO_SUCH_NAME if unknown else 0
        if kind != TYPE_A:
            addresses = []
        return dataclasses.replace(reply, rcode=rcode, addresses=addresses)
