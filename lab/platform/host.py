# SPDX-License-Identifier: Apache-2.0
"""One host of the platform: its listeners, its connections, its rules and its faults."""
import dataclasses
import fnmatch
import socket
import ssl
import struct
import threading
import time

from .messages import LONGEST_HEADER, Request, parse_header, split_request

IDLE_SECONDS = 600  # a kept-alive connection that says nothing
RESET_ON_CLOSE = struct.pack("ii", 1, 0)
FAULTS = ("refuse", "stall", "close", "reset", "mute")


@dataclasses.dataclass
class Rule:
    """Overrides the standard answer for the requests it matches; the newest rule comes first."""
    pattern: str              # fnmatch pattern of "METHOD /path"
    answer: object            # Answer, or a callable: Request -> Answer, or None for no opinion
    times: int | None = None  # uses left, None for any number


class Host:
    """Serves `standard(request) -> Answer` on an address; every port is TLS but 80."""

    def __init__(self, name, address, ports, context, standard, record):
        self.name, self.address, self.ports = name, address, ports
        self.connections = 0        # accepted so far
        self.handshakes = 0         # TLS sessions set up so far
        self._context, self._standard, self._record = context, standard, record
        self._rules, self._fault, self._fault_times = [], None, None
        self._listeners, self._open, self._lock = {}, set(), threading.Lock()
        self._listen()

    def answer(self, pattern, answer, times=None):
        """Answers requests whose "METHOD /path" matches the pattern (shell wildcards) with an
        Answer, or with what a callable makes of the Request; for `times` requests or for good."""
        with self._lock:
            self._rules.insert(0, Rule(pattern, answer, times))

    def fail(self, fault, times=None):
        """Lets connections fail, the next `times` of them or all until `heal()`:
        refuse (no listener), stall (SYN unanswered), close (at once, orderly), reset (at once)
        and mute (accepted, then silence). refuse and stall ignore `times`."""
        assert fault in FAULTS, fault
        self.heal()
        self._fault, self._fault_times = fault, times
        if fault in ("refuse", "stall"):
            self._unlisten()
        if fault == "stall":
            self._stall()

    def heal(self):
        """Ends a fault."""
        if self._fault in ("refuse", "stall"):
            self._unlisten()
            self._listen()
        self._fault = None

    def reset(self):
        """Back to a host without rules, faults and connections."""
        with self._lock:
            self._rules.clear()
        self.drop()
        self.heal()
        self.connections = self.handshakes = 0

    def drop(self):
        """Closes our end of all open connections, as a server that tidies up between requests."""
        with self._lock:
            still_open = list(self._open)
        for connection in still_open:
            # below TLS: another thread may be reading through the session
            _quietly(socket.socket.shutdown, connection, socket.SHUT_RDWR)

    def _listen(self):
        for port in self.ports:
            listener = socket.create_server((self.address, port), backlog=64)
            self._listeners[port] = [listener]
            threading.Thread(target=self._accept, args=(listener, port), daemon=True).start()

    def _unlisten(self):
        for sockets in self._listeners.values():
            for one in sockets:
                # close() alone would leave a thread that sits in accept() holding the port
                _quietly(one.shutdown, socket.SHUT_RDWR)
                one.close()
        self._listeners.clear()

    def _stall(self):
        """A full backlog: the kernel leaves further SYNs unanswered."""
        for port in self.ports:
            listener = socket.create_server((self.address, port), backlog=0)
            fillers = [socket.socket() for _ in range(2)]
            for filler in fillers:
                filler.setblocking(False)
                filler.connect_ex((self.address, port))
            self._listeners[port] = [listener] + fillers

    def _accept(self, listener, port):
        while True:
            try:
                connection, _peer = listener.accept()
            except OSError:
                return
            with self._lock:
                self.connections += 1
                number, fault = self.connections, self._next_fault()
            threading.Thread(target=self._serve, args=(connection, port, number, fault),
                             daemon=True).start()

    def _next_fault(self):
        if self._fault and self._fault_times is not None:
            if self._fault_times == 0:
                return None
            self._fault_times -= 1
        return self._fault

    def _serve(self, connection, port, number, fault):
        if fault in ("close", "reset"):
            return _finish(connection, fault)
        connection.settimeout(IDLE_SECONDS)
        try:
            if port != 80 and fault != "mute":
                connection = self._context.wrap_socket(connection, server_side=True)
                self.handshakes += 1
            with self._lock:
                self._open.add(connection)
            self._converse(connection, port, number, fault == "mute")
        except (OSError, ValueError):
            pass  # the peer went away, or sent no HTTP
        with self._lock:
            self._open.discard(connection)
        connection.close()

    def _converse(self, connection, port, number, mute):
        data = b""
        while mute and connection.recv(4096):
            pass
        while not mute:
            request, data = self._read(connection, port, number, data)
            if request is None:
                return
            self._record(request)
            answer = self._choose(request)
            request.status = answer.status
            if request.headers.get("connection", "").lower() == "close" and answer.end == "keep":
                answer = dataclasses.replace(answer, end="close")
            if not _send(connection, answer):
                return

    def _read(self, connection, port, number, data):
        """(request, bytes after it), or (None, b"") at the end of the connection."""
        while not (parts := split_request(data)) or len(parts[2]) < parts[1]:
            piece = connection.recv(65536)
            if not piece or len(data) > LONGEST_HEADER and not parts:
                return None, b""
            data += piece
        header, length, rest = parts
        body, rest = rest[:length], rest[length:]
        stray = rest[:len(rest) - len(rest.lstrip(b"\r\n"))]
        method, target, headers = parse_header(header)
        raw = header + body + stray
        return Request(self.name, port, number, method, target, headers, body, raw,
                       time.time()), rest[len(stray):]

    def _choose(self, request):
        with self._lock:
            rules = [rule for rule in self._rules
                     if rule.times != 0 and fnmatch.fnmatchcase(request.line, rule.pattern)]
        for rule in rules:
            answer = rule.answer(request) if callable(rule.answer) else rule.answer
            if answer is not None:
                rule.times = rule.times and rule.times - 1
                return answer
        return self._standard(request)


def _send(connection, answer):
    """Sends an answer as it wishes; True when the connection stays."""
    time.sleep(answer.delay)
    data = answer.encoded()
    step = answer.drip or len(data) or 1
    for start in range(0, len(data), step):
        connection.sendall(data[start:start + step])
        if answer.drip:
            time.sleep(answer.drip_pause)
    if answer.ending() != "keep":
        _finish(connection, answer.ending())
    return answer.ending() == "keep"


def _finish(connection, how):
    """Ends a connection: with a close notice and FIN, or with RST."""
    if how == "reset":
        _quietly(connection.setsockopt, socket.SOL_SOCKET, socket.SO_LINGER, RESET_ON_CLOSE)
        _quietly(connection.close)
        return
    if isinstance(connection, ssl.SSLSocket):
        connection.settimeout(0.1)
        _quietly(connection.unwrap)
    _quietly(connection.shutdown, socket.SHUT_RDWR)


def _quietly(call, *arguments):
    try:
        call(*arguments)
    except (OSError, ValueError):
        pass
