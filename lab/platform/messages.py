# SPDX-License-Identifier: Apache-2.0
"""What travels over HTTP: the request as it came, and the answer as it shall go."""
import dataclasses
import json
import re
import urllib.parse
from http.client import responses

HEADER_END = re.compile(rb"\r?\n\r?\n")  # the daemon mixes both kinds of line end
LONGEST_HEADER = 65536


@dataclasses.dataclass
class Request:
    """One request; `raw` is every byte of it, stray line ends behind the body included."""
    host: str            # short name of the lab's host: api, accounts, pbx, dl
    port: int
    connection: int      # counts from 1 on each host
    method: str
    target: str          # as sent, with the query
    headers: dict        # names in lower case
    body: bytes
    raw: bytes
    time: float          # time.time() of the last byte
    status: int = 0      # of the answer, 0 while there is none

    @property
    def path(self):
        return self.target.partition("?")[0]

    @property
    def query(self):
        return dict(urllib.parse.parse_qsl(self.target.partition("?")[2], True))

    @property
    def line(self):
        return f"{self.method} {self.path}"

    def json(self):
        return json.loads(self.body)


@dataclasses.dataclass
class Answer:
    """One answer. A str, dict or list as body is encoded; `raw` replaces header and body."""
    body: object = b""
    status: int = 200
    headers: dict = dataclasses.field(default_factory=dict)
    delay: float = 0             # seconds before the first byte
    drip: int = 0                # bytes a step, 0 for all at once
    drip_pause: float = 0.02     # seconds between steps
    cut_after: int | None = None  # bytes of the body, then the connection ends
    end: str = "keep"            # keep, close (orderly) or reset, once the answer is out
    content_length: bool = True
    raw: bytes | None = None

    def encoded_body(self):
        if isinstance(self.body, bytes):
            return self.body
        return (self.body if isinstance(self.body, str) else json.dumps(self.body)).encode()

    def encoded(self):
        if self.raw is not None:
            return self.raw
        body = self.encoded_body()
        headers = {"Content-Type": "application/json"} | self.headers
        if self.content_length:
            headers = {"Content-Length": len(body)} | headers
        lines = [f"HTTP/1.1 {self.status} {responses.get(self.status, '-')}"]
        lines += [f"{name}: {value}" for name, value in headers.items()]
        head = "\r\n".join(lines).encode() + b"\r\n\r\n"
        return head + body[:self.cut_after]

    def ending(self):
        return "close" if self.cut_after is not None and self.end == "keep" else self.end


def redirect(location, status=302):
    return Answer(b"", status, {"Location": location})


def split_request(data):
    """(header, body length, rest) once a whole header is in `data`, else None."""
    found = HEADER_END.search(data)
    if not found:
        return None
    length = re.search(rb"(?im)^content-length:\s*(\d+)", data[:found.start()])
    return data[:found.end()], int(length[1]) if length else 0, data[found.end():]


def parse_header(header):
    """(method, target, headers) of a raw header; ValueError when its first line is no request."""
    lines = header.decode("latin-1").strip("\r\n").splitlines()
    method, target, _version = lines[0].split(" ", 2)
    pairs = (line.partition(":") for line in lines[1:])
    return method, target, {name.strip().lower(): value.strip() for name, _, value in pairs}
