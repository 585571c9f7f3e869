# SPDX-License-Identifier: Apache-2.0
"""What the web pages read and change: run mode, UMS server, switches and pinned servers."""
import concurrent.futures

from lab.deployment import API_SERVER
from lab.device import AGENT_INI, HOSTS, INI, read_text, wait_until, write_text
from lab.platform import DEVICE_ID, Reply, coded

DEVICE = "/v1/devices/" + DEVICE_ID
CHANGE, UNBIND = f"PUT {DEVICE}", f"DELETE {DEVICE}/actions/bind"
SET, OK = "method=gw.config.set&", {"result": "ok", "code": 0}
RATE = 4  # of the clock, where modes change: each takes seconds of pauses
USER_SERVERS = {"id80037": "user_sipserver", "id80038": "user_apiserver"}


def error(code):
    return {"result": "error", "code": code}


def test_ids_that_can_be_read(running):
    """Every other id, also one that is only part of a reply, is not answered."""
    found = {number: running.replies(f"method=gw.config.get&id={number}") for number in range(79999, 80041)}
    keys = {number: list(one[0])[2:] for number, one in found.items() if one and number not in (80005, 80025)}
    assert keys == {80000: ["id80000", "id80001", "id80014", "id80020"], 80002: ["id80002", "id80006"],
                    80011: ["id80002", "id80006", "id80011", "id80012", "id80013"],
                    80031: ["id80035", "id80031", "id80032", "id80033", "id80034"], 80036: [],
                    80037: ["id80037"], 80038: ["id80038"]}
    assert found[80005][0] == found[80025][0] and found[80037] + found[80038] == [
        OK | {"id80037": ""}, OK | {"id80038": ""}]
    for key, name in USER_SERVERS.items():
        assert running.log_lines(f"Get {name}({key}) failed or no parameter in config file")


# Each mode to each mode, itself included; only the changes in STAYS leave the daemon running.
WALK = "on on off off on disable disable on ums ums off disable off ums disable ums on".split()
STAYS = {("on", "on"), ("on", "off"), ("off", "off"), ("off", "on"), ("ums", "ums")}
AGENT = {"on": ("cloudae", []), "ums": ("cloudae", ["--ums"]),
         "off": ("cloudsafety", []), "disable": ("cloudsafety", [])}


def change(platform, device, text, stays):
    """Sends a change; its replies and the modes reported, once the daemon has proved that it works
    on or another one has taken over."""
    pid, before = device.pid(), platform.mark()
    replies = device.replies(SET + text) if stays else [one.json() for one in device.query_all(
        SET + text, count=text.count("id80000=") + text.count("id80014="), timeout=20)]
    reported = [one.query["cloud_server"] for one in platform.requests(CHANGE, before)]
    if stays:
        assert device.daemons() == [pid] == [device.pid()], text
    else:
        device.wait_new_pid(pid)
    return replies, reported


def test_each_run_mode_to_each(platform, device):
    """A value counts by its beginning. Nothing is reported from or to "disable", which bans the
    cloud. A new daemon starts the agent of its mode once more."""
    agents = (device.cloudae, device.cloudsafety)

    def starts():
        return {one.name: [entry["argv"][1:] for entry in one.starts()] for one in agents}
    assert len(set(zip(WALK, WALK[1:]))) == 16
    device.start_enrolled(platform, agents=[one.name for one in agents], rate=RATE)
    device.cloudae.wait_started()
    for step, (old, new) in enumerate(zip(WALK, WALK[1:])):
        before, stays = starts(), (old, new) in STAYS
        replies, reported = change(platform, device, f"id80000={new}" + "ly.2" * (step % 2), stays)
        assert replies == [OK] and reported == ([] if "disable" in (old, new) else [new]), (old, new)
        assert device.setting("cloudserver") == new == device.get(80000)["id80000"]
        name, arguments = AGENT[new]
        expected = before | {name: before[name] + [arguments] * (1 if stays else 2)}
        wait_until(lambda: starts() == expected, 20, f"{old} to {new}: {expected}")
        assert [one.name for one in agents if one.pid()] == [name], (old, new)


# request, whether the daemon stays, mode and server after it, arguments of the cloudae it starts
UMS_STEPS = [
    ("id80014=", True, "on", "", []),
    ("id80014=ums.lan&id80035=late", False, "ums", "ums.lan", ["--ums"]),
    ("id80007=first&id80014=" + "u" * 63, True, "ums", "u" * 63, ["--ums"]),
    ("id80007=" + "t" * 64, True, "ums", "u" * 63, ["--ums"]),
    ("id80014=", False, "on", "", []),
    ("id80014=&id80000=ums&id80007=" + "t" * 63, False, "on", "", []),
    ("id80000=off", True, "off", "", None),
    ("id80014=", True, "on", "", []),
    ("id80000=off&id80014=x.lan", False, "ums", "x.lan", ["--ums"]),
    ("id80000=disable", False, "disable", "x.lan", None),
    ("id80014=", True, "on", "", []),
]


def test_ums_server_set_and_emptied(platform, device):
    """Mode and server in one request are both answered; what follows them is lost by a restart."""
    device.start_enrolled(platform, agents=["cloudae"], rate=RATE)
    for text, stays, mode, server, arguments in UMS_STEPS:
        replies, _ = change(platform, device, text, stays)
        assert replies == [OK] * (text.count("id80000=") + text.count("id80014=")), text
        shown = device.get(80000)
        assert (shown["id80000"], shown["id80014"]) == (mode, server), text
        assert device.setting("cloudserver") == mode, text
        assert (device.setting("UMS_SERVER", path=AGENT_INI) or "") == server
        wait_until(lambda: arguments is None or device.cloudae.pid() and device.cloudae.starts()[-1]["argv"][1:]
                   == arguments, 20, f"cloudae {arguments} after {text}")
    assert [device.setting(key) for key in ("ums_active_token", "active_token", "quorvel_service")] == [
        "t" * 63, None, None]


def test_order_of_the_steps_and_their_replies(platform, running):
    """The order in the text does not matter, the mode is stored first, one cookie serves all."""
    platform.api.answer(CHANGE, coded(77))
    platform.api.answer(UNBIND, coded(2202))
    before = platform.mark()
    text = (SET + "id80038=a.lan|10.0.0.1&id80037=b.lan|10.0.0.2&id80035=on&id80002=falsely&id80007=tok&"
            "id80004=pw&id80003=me&id80014=&id80000=off")
    with concurrent.futures.ThreadPoolExecutor() as pool:
        sent = pool.submit(running.query_all, text, cookie=0xABCD, count=6, timeout=20)
        wait_until(lambda: running.setting("cloudserver") == "off", what="the setting", pause=0.01)
        assert not sent.done() and not platform.requests(since=before)
    good, bad = '{"result":"ok","code":0}', '{"result":"error","code":2202}'
    assert [(one.cookie, one.text) for one in sent.result()] == [
        (0xABCD, one) for one in (good, good, bad, good, good, good)]
    assert [one.line for one in platform.requests(since=before)] == [CHANGE, UNBIND]
    logged = [running.log().find(one) for one in (
        "id80014=, len=0", "id80003=me, len=2", "id80004=pw, len=2", "id80007=tok, len=3", "id80035=on, len=2",
        "id80037=b.lan|10.0.0.2, len=14", "id80038=a.lan|10.0.0.1, len=14")]
    assert logged == sorted(logged) and logged[0] > 0
    assert running.setting("active_token") is None, "kept in memory until a bind succeeds"
    for value in ("", "standby", "OFF", "disabl", "of", "%s%n"):
        replies, reported = change(platform, running, f"id80002=perhaps&id80000={value}", True)
        assert replies == [OK, error(77)] and reported == ["on"] == [running.setting("cloudserver")], value
    assert running.replies(SET + "id80002=perhaps") == [error(-1)]
    for value in ("on", "x" * 15, "", "off"):
        assert running.replies(f"{SET}id80035={value}") == [OK]
        assert running.setting("quorvel_service") == value == running.get(80031)["id80035"]


FAR, OTHER, OLD = "10.0.0.90 far.lan", "110.0.0.95 other.lan", "10.0.0.5 old-entry"
HOME, API, PBX = "127.0.0.1 localhost", "10.0.0.3 api.lan api.lan", "10.0.0.5 pbx.lan pbx.lan"
# key, value, lines of /etc/hosts after it: one goes when it has the old address anywhere in it
PINS = [
    ("id80037", "old.lan|10.0.0.9", [FAR, OTHER, OLD, "10.0.0.9 old.lan old.lan"]),
    ("id80037", "old.lan|10.0.0.9", [FAR, OTHER, OLD, "10.0.0.9 old.lan old.lan"]),
    ("id80037", " old.lan |\t10.0.0.9 ", [OLD, "10.0.0.9 old.lan old.lan"]),
    ("id80037", "pbx.lan |10.0.0.5", [OLD, PBX]), ("id80037", "pbx.lan |10.0.0.5", [OLD, PBX]),
    ("id80038", "api.lan|10.0.0.3", [OLD, PBX, API]),
    ("id80037", "no-bar", [API]), ("id80037", "no-address|", [API]), ("id80037", "|10.0.0.3", [API]),
    ("id80037", "", [API]), ("id80038", "", []),
]
PIN_LINES = ["id80037 old value,ip:10.0.0.9,domain:old.lan", "user_sipserver(id80037) new value is empty",
             "user_sipserver(id80037) new value,ip:10.0.0.5,domain:pbx.lan",
             "user_apiserver(id80038) old value,ip:10.0.0.3,domain:api.lan",
             "user_apiserver(id80038) new value,ip:10.0.0.3,domain:api.lan",
             "user_apiserver(id80038) new value is empty", "delete domain cmd=sed -i '/10.0.0.9/'d /etc/hosts",
             "Add domain cmd=echo 10.0.0.5 pbx.lan pbx.lan >> /etc/hosts"]


def test_what_does_not_fit_changes_nothing(running):
    """Also a name and an address: with their beginnings another machine would be pinned."""
    assert running.replies(f"{SET}id80037=x.lan|10.0.0.1") == [OK]
    before = read_text(INI), read_text(HOSTS), running.get(80000)
    for text, limit in (("id80014=" + "u" * 64, 63), ("id80035=" + "x" * 16, 15),
                        ("id80037=x.lan|192.168.100.2001", None), (f"id80038={'h' * 64}|10.0.0.2", None)):
        assert running.replies(SET + text) == [error(93)], text
        assert (read_text(INI), read_text(HOSTS), running.get(80000)) == before, text
        assert limit is None or f"{text[:7]} has {limit + 1} characters, at most {limit}, not taken" in running.errors()
    assert "pinned server not taken, name of 5, address of 16 characters" in running.errors()
    assert "pinned server not taken, name of 64, address of 8 characters" in running.errors()


def test_pinned_servers(running):
    write_text(HOSTS, "\n".join([HOME, FAR, OTHER, OLD, ""]))
    for key, value, lines in PINS:
        assert running.replies(f"{SET}{key}={value}") == [OK]
        assert read_text(HOSTS).splitlines() == [HOME] + lines, value
        assert running.setting(USER_SERVERS[key]) == value.strip()
        assert running.query(f"method=gw.config.get&id={key[2:]}").text == (
            f'{{"result":"ok","code":0,"{key}":"{value.strip()}"}}')
    assert [one for one in PIN_LINES if not running.log_lines(one)] == []


def test_pins_are_judged_at_start_as_well(platform, device):
    device.reset_enrolled(platform, {"user_apiserver": " api.lan |\t10.0.0.3",
                                     "user_sipserver": "x.lan|192.168.100.2001"})
    device.start()
    assert read_text(HOSTS) == f"{HOME}\n{API}\n"
    assert "pinned server not taken, name of 5, address of 16 characters" in device.errors()


def test_pinned_api_server_replaces_the_name_servers(platform, device):
    platform.dns.answer(Reply(rcode=3))
    device.reset_enrolled(platform, {"user_apiserver": API_SERVER + "|127.0.0.11"})
    device.start()
    platform.wait_request(f"GET {DEVICE}")  # on the first tick: the start itself came too early
    assert read_text(HOSTS) == f"127.0.0.1 localhost\n127.0.0.11 {API_SERVER} {API_SERVER}\n"
