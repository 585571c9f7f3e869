# SPDX-License-Identifier: Apache-2.0
"""What a well-behaved platform knows and answers: devices, offers, accounts, the PBX service."""
import base64
import dataclasses
import hashlib
import hmac
import re

from ..deployment import API_SIGN_KEY, DOWNLOAD_SERVER, OAUTH_CLIENT
from .messages import Answer

DEVICE_ID = "0a1b2c3d-1111-2222-3333-444455556666"
DEVICE_MAC = "001122AAbbcc"

# Result codes of the cloud API. The daemon reacts to 1004 and 2201 (activate again) and to 2005
# (boot already reported); the others are the lab's own.
OK, BAD_SIGNATURE, NO_SUCH_DEVICE, BAD_KEY, BAD_TOKEN, BAD_REQUEST = 0, 1003, 1004, 2201, 2202, 1001


@dataclasses.dataclass
class Record:
    """A device as the platform knows it."""
    device_id: str = DEVICE_ID
    mac: str = DEVICE_MAC
    key: str = "key-of-the-device"
    active: bool = False
    bound: bool = False
    user: str = "owner@cloud.example"
    authcode: str = ""
    grantee: str = ""
    uptimes: list = dataclasses.field(default_factory=list)     # boot reports
    upgrades: list = dataclasses.field(default_factory=list)    # bodies of the upgrade reports
    reported: dict = dataclasses.field(default_factory=dict)    # last value of each PUT parameter


@dataclasses.dataclass
class Offer:
    """A version on offer; `fields` overrides single members of the answer (None drops one)."""
    name: str
    version: str
    file_name: str
    size: int
    signature: str
    link: str
    note: str = "Made in the lab."
    force: bool = False
    fields: dict = dataclasses.field(default_factory=dict)

    def json(self):
        data = {"app_name": self.name, "to_version": self.version,
                "version_name": self.file_name, "link": self.link, "size": str(self.size),
                "signature": self.signature, "rel_info": self.note,
                "force_upgrade": "true" if self.force else "false"} | self.fields
        return {name: value for name, value in data.items() if value is not None}


@dataclasses.dataclass
class Verdict:
    """What the platform thought of one signed request."""
    path: str
    ok: bool
    mac: str
    timestamp: str


def coded(code, **values):
    return Answer({"code": code, "message": "ok" if code == OK else "refused"} | values)


def credential(request):
    """The text behind "Authorization: Basic", decoded; empty without one."""
    scheme, _, value = request.headers.get("authorization", "").partition(" ")
    return base64.b64decode(value).decode("latin-1") if scheme == "Basic" else ""


def basic(text):
    """The value of the header that credential() reads."""
    return "Basic " + base64.b64encode(text.encode("latin-1")).decode()


def hmac_hex(key, text):
    return hmac.new(key, text.encode("latin-1"), hashlib.sha1).hexdigest()


class Cloud:
    """State and standard answers of all hosts. Tests read and change the fields at will.

    devices        {device id: Record}          offers    {application name: Offer}
    active_tokens  accepted for binding         accounts  {user name: password}
    login_token    given by a login             verdicts  one for each signed request
    files          {"/path": bytes} of the download host
    vcodes, pbx_token, sip_config, sip_status, extensions, join_prefix, qr_image, qr_token,
    qr_scanned     the PBX service"""

    def __init__(self):
        self.reset()

    def reset(self):
        self.devices = {DEVICE_ID: Record()}
        self.active_tokens = {"token-of-the-owner"}
        self.login_token = "token-of-a-login"
        self.accounts = {"alice": "secret"}
        self.offers, self.files, self.verdicts = {}, {}, []
        self.vcodes, self.pbx_token = {"123456"}, "token-of-the-pbx"
        self.sip_config = {"user": "1001", "server": "sip.cloud.example", "password": "sip-secret",
                           "join_prefix": "8"}
        self.sip_status = {"address": "10.0.0.2:5060", "state": "registered"}
        self.extensions, self.join_prefix = [{"number": "1001", "name": "Desk"}], "8"
        self.qr_image, self.qr_token, self.qr_scanned = b"\x89PNG\r\n\x1a\nlab", "qr12345678", False

    @property
    def device(self):
        """The record of the lab's own device."""
        return self.devices[DEVICE_ID]

    def offer(self, package, scheme="https", **changes):
        """Offers a lab.package.Package and puts it on the download host; changes are fields of
        Offer. Returns the Offer."""
        path = "/packages/" + package.file_name
        self.files[path] = package.data
        offer = Offer(package.name, package.version, package.file_name, len(package.data),
                      package.signature, f"{scheme}://{DOWNLOAD_SERVER}{path}")
        self.offers[package.name] = dataclasses.replace(offer, **changes)
        return self.offers[package.name]

    def answer_api(self, request):
        return self._route(API_ROUTES, request)

    def answer_accounts(self, request):
        return self._route(ACCOUNTS_ROUTES, request)

    def answer_pbx(self, request):
        return self._route(PBX_ROUTES, request)

    def answer_download(self, request):
        data = self.files.get(request.path)
        if data is None:
            return Answer("not found\n", 404, {"Content-Type": "text/plain"})
        return Answer(data, headers={"Content-Type": "application/octet-stream"})

    def _route(self, routes, request):
        for pattern, handler in routes:
            found = re.fullmatch(pattern, request.line)
            if found:
                return handler(self, request, *found.groups())
        return Answer({"code": BAD_REQUEST, "message": "no such call"}, 404)

    def _keyed(self, request, device_id):
        """(code, record): whether the device exists and the request carries its key."""
        record = self.devices.get(device_id)
        if not record or not record.active:
            return NO_SUCH_DEVICE, record
        return (OK if credential(request) == record.key + ":x-auth-device" else BAD_KEY), record

    # -- devices ----------------------------------------------------------------------------------

    def activate(self, request, device_id):
        query = request.query
        mac, timestamp = query.get("device_mac", ""), query.get("timestamp", "")
        good = query.get("sign") == hmac_hex(API_SIGN_KEY, mac + timestamp)
        self.verdicts.append(Verdict(request.path, good, mac, timestamp))
        if not good:
            return coded(BAD_SIGNATURE)
        record = self.devices.get(device_id) or self._by_mac(mac)
        if not record or record.mac != mac:
            return coded(NO_SUCH_DEVICE)
        record.active = True
        return coded(OK, device_id=record.device_id, device_key=record.key, active_state="true")

    def _by_mac(self, mac):
        return next((one for one in self.devices.values() if one.mac == mac), None)

    def read_device(self, request, device_id):
        code, record = self._keyed(request, device_id)
        if code != OK:
            return coded(code)
        return coded(OK, devices=[{"device_id": device_id, "bind_status": self._bind_text(record),
                                   "user_id": record.user if record.bound else ""}])

    @staticmethod
    def _bind_text(record):
        return "true" if record.bound else "false"

    def change_device(self, request, device_id):
        code, record = self._keyed(request, device_id)
        if code == OK:
            record.reported.update(request.query)
        return coded(code)

    def bind(self, request, device_id):
        record = self.devices.get(device_id)
        accepted = {token + ":" for token in self.active_tokens | {self.login_token}}
        if not record or credential(request) not in accepted:
            return coded(BAD_TOKEN if record else NO_SUCH_DEVICE)
        record.bound = True
        return coded(OK, bind_status="true")

    def unbind(self, request, device_id):
        code, record = self._keyed(request, device_id)
        if code == OK:
            record.bound = False
        return coded(code, bind_status="false") if code == OK else coded(code)

    def take_metric(self, request):
        code, record = self._keyed(request, request.query.get("metric_id"))
        if code == OK and request.query.get("metric_name") == "deviceBoot":
            record.uptimes.append(request.query.get("uptime", ""))
        elif code == OK:
            record.upgrades.append(request.body.decode("latin-1"))
        return coded(code)

    def authcode(self, request, *_rest):
        code, record = self._keyed(request, request.query.get("device_id"))
        if code != OK:
            return coded(code)
        if request.method != "GET":
            record.authcode = "auth-4711" if request.method == "POST" else ""
        return coded(OK, device_authcode=record.authcode, grantee_id=record.grantee)

    def offer_version(self, request, name):
        code, _record = self._keyed(request, request.query.get("device_id"))
        if code != OK:
            return Answer({"status": "error", "code": code})
        if name not in self.offers:
            return Answer({"status": "none"})
        return Answer({"status": "ok", "data": self.offers[name].json()})

    # -- accounts ---------------------------------------------------------------------------------

    def login(self, request):
        form = dict(pair.partition("=")[::2] for pair in request.body.decode("latin-1").split("&"))
        known = self.accounts.get(form.get("username")) == form.get("password") is not None
        if credential(request) != OAUTH_CLIENT or not known:
            return coded(BAD_TOKEN)
        return coded(OK, token=self.login_token)

    # -- PBX service ------------------------------------------------------------------------------

    def pbx_activate(self, request, kind):
        fields = request.json()
        text = fields["mac"] + fields["device_type"] + fields["device_id"] + fields.get("vcode", "")
        if not self._pbx_signed(request, fields, text):
            return coded(BAD_SIGNATURE)
        if kind == "activatecode":
            return Answer(self.qr_image, headers={"Content-Type": "image/png",
                                                  "X-Kzt-Activetoken": self.qr_token})
        known = fields.get("vcode") in self.vcodes
        return coded(OK, access_token=self.pbx_token) if known else coded(BAD_TOKEN)

    def pbx_read(self, request, kind):
        query = request.query
        token = query.get("active_token" if kind == "activatecode" else "token", "")
        if not self._pbx_signed(request, query, query.get("mac", "") + token):
            return coded(BAD_SIGNATURE)
        answers = {"activatecode": (token == self.qr_token and self.qr_scanned,
                                    {"access_token": self.pbx_token}),
                   "config": (token == self.pbx_token, {"sip_config": self.sip_config}),
                   "status": (token == self.pbx_token, {"sip_status": self.sip_status}),
                   "extensions": (token == self.pbx_token, {"extensions": self._page(query),
                                                            "join_prefix": self.join_prefix})}
        accepted, values = answers[kind]
        return coded(OK, **values) if accepted else coded(PBX_TOKEN_REFUSED)

    def _page(self, query):
        first, count = int(query.get("start") or 0), int(query.get("limit") or 0)
        return self.extensions[first:first + count]

    def _pbx_signed(self, request, fields, text):
        timestamp = fields.get("timestamp", "")
        keys = [API_SIGN_KEY + device_id.encode() for device_id in self.devices]
        good = any(fields.get("sign") == hmac_hex(key, text + timestamp) for key in keys)
        self.verdicts.append(Verdict(request.path, good, fields.get("mac", ""), timestamp))
        return good


PBX_TOKEN_REFUSED = 20006
API_ROUTES = (
    (r"POST /v1/devices/([^/]+)/actions/activate", Cloud.activate),
    (r"POST /v1/devices/([^/]+)/actions/bind", Cloud.bind),
    (r"DELETE /v1/devices/([^/]+)/actions/bind", Cloud.unbind),
    (r"POST /v1/services/cloudwatch/metrics", Cloud.take_metric),
    (r"(?:GET|POST) /v1/devices/authcodes", Cloud.authcode),
    (r"DELETE /v1/devices/authcodes/([^/]*)", Cloud.authcode),
    (r"GET /v1/devices/([^/]+)", Cloud.read_device),
    (r"PUT /v1/devices/([^/]+)", Cloud.change_device),
    (r"GET /v1/res/upgrade/apps/([^/]+)", Cloud.offer_version),
)
ACCOUNTS_ROUTES = ((r"POST /oauth2/token", Cloud.login),)
PBX_ROUTES = (
    (r"POST /v1/ippbx/(activatecode|activate)", Cloud.pbx_activate),
    (r"GET /v1/ippbx/(activatecode|config|status|extensions)", Cloud.pbx_read),
)
