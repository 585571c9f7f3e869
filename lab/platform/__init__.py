# SPDX-License-Identifier: Apache-2.0
"""The cloud platform of the lab: TLS hosts, a download host, name servers, and a journal."""
import fnmatch
import threading
import time

from ..deployment import ACCOUNTS_SERVER, API_SERVER, DOWNLOAD_SERVER, PBX_SERVER
from .certificates import server_context
from .cloud import DEVICE_ID, DEVICE_MAC, Cloud, Offer, Record, basic, coded, credential
from .dns import NameServers, Reply
from .host import Host
from .messages import Answer, Request, redirect

__all__ = ["Answer", "Cloud", "DEVICE_ID", "DEVICE_MAC", "Host", "NameServers", "Offer",
           "Platform", "Record", "Reply", "Request", "basic", "coded", "credential", "redirect"]

ADDRESSES = {
    API_SERVER: "127.0.0.11",
    ACCOUNTS_SERVER: "127.0.0.12",
    PBX_SERVER: "127.0.0.13",
    DOWNLOAD_SERVER: "127.0.0.14",
}


class Platform:
    """Everything outside the device. One for a sandbox; `reset()` before each test.

    cloud                       state and standard answers (platform.cloud.Cloud)
    api, accounts, pbx, dl      hosts (platform.host.Host)
    dns                         name servers (platform.dns.NameServers)
    journal                     every Request of every host, in the order they were complete"""

    def __init__(self):
        self.cloud = Cloud()
        self.journal = []
        self._news = threading.Condition()
        self.dns = NameServers({name: [address] for name, address in ADDRESSES.items()})
        context = server_context(list(ADDRESSES))
        hosts = (("api", API_SERVER, (443,), self.cloud.answer_api),
                 ("accounts", ACCOUNTS_SERVER, (443,), self.cloud.answer_accounts),
                 ("pbx", PBX_SERVER, (443,), self.cloud.answer_pbx),
                 ("dl", DOWNLOAD_SERVER, (443, 80), self.cloud.answer_download))
        self.hosts = {short: Host(short, ADDRESSES[name], ports, context, standard, self._record)
                      for short, name, ports, standard in hosts}
        self.api, self.accounts = self.hosts["api"], self.hosts["accounts"]
        self.pbx, self.dl = self.hosts["pbx"], self.hosts["dl"]

    def reset(self):
        """A platform without history: no rules, faults, offers, connections or journal."""
        for host in self.hosts.values():
            host.reset()
        self.cloud.reset()
        self.dns.reset()
        with self._news:
            self.journal.clear()

    def _record(self, request):
        with self._news:
            self.journal.append(request)
            self._news.notify_all()

    def requests(self, match="*", since=0):
        """The requests of the journal from index `since` on that match: a callable on the
        Request, or a shell pattern of "METHOD /path" (a bare path pattern will do)."""
        test = match if callable(match) else _pattern(match)
        with self._news:
            return [request for request in self.journal[since:] if test(request)]

    def mark(self):
        """An index for `since`: only what comes from now on."""
        with self._news:
            return len(self.journal)

    def wait_request(self, match="*", timeout=20, since=0, count=1):
        """The count-th request that matches, waited for; AssertionError after `timeout`."""
        deadline = time.monotonic() + timeout
        while True:
            with self._news:
                seen = len(self.journal)
            found = self.requests(match, since)
            if len(found) >= count:
                return found[count - 1]
            with self._news:
                left = deadline - time.monotonic()
                assert left > 0, f"{len(found)} of {count} requests matched {match}: {self}"
                if len(self.journal) == seen:
                    self._news.wait(left)

    def __str__(self):
        return f"the platform saw {[request.line for request in self.journal]}"

    def journal_text(self):
        """The journal for people: each request's bytes between two rulers."""
        parts = []
        for number, one in enumerate(list(self.journal)):
            stamp = time.strftime("%H:%M:%S", time.gmtime(one.time))
            parts.append(f"--- {number} {stamp} {one.host}:{one.port} connection "
                         f"{one.connection}, answered {one.status}\n"
                         + one.raw.decode("latin-1") + "\n")
        return "".join(parts)


def _pattern(text):
    pattern = text if " " in text or text == "*" else "* " + text
    return lambda request: fnmatch.fnmatchcase(request.line, pattern)
