# SPDX-License-Identifier: Apache-2.0
"""Seed inputs and words of the fuzz targets, in the layout that each target's body() reads."""

import struct

END = b"\xff"  # of a part


def answer(body, head=b""):
    """One HTTP answer of a server."""
    return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n%s\r\n%s" % (len(body), head, body)


def datagrams():
    """Requests of the web pages, each in a mode of its own."""
    header = struct.pack("<8I", 7, 7, 11, 0x0A000001, 1, 0xABCD, 0x8888, 0)
    gets = [b"method=gw.config.get&id=%d" % number for number in
            (80000, 80002, 80005, 80011, 80025, 80031, 80037, 80038)]
    sets = [b"method=gw.config.set&" + pair for pair in (
        b"id80000=on", b"id80000=disable", b"id80014=ums.example", b"id80014=", b"id80007=token",
        b"id80003=user&id80004=secret&id80002=true", b"id80002=false", b"id80035=on",
        b"id80037=sip.example|10.0.0.2", b"id80038=a.example|10.0.0.3")]
    actions = [b"method=gw.app.action&" + pair for pair in (
        b"pluginName=cloudae&pluginAction=update", b"pluginName=cloudae&pluginAction=cancel",
        b"authcode=create", b"authcode=delete", b"device_vcode=1234",
        b"quorvel_action=get_kq_qrcode", b"quorvel_action=get_kq_config",
        b"quorvel_action=check_kq_qrcode&active_toekn=t")]
    more = [b"method=gw.config.get&id=80036&next=5", b"method=gw.boa.report&ip=10.0.0.9",
            b"id=80025&language=english&method=gw.config.get",
            b"device_vcode get_kq_config 80031 80035 80036 method=gw.config.get&id=80031"]
    reply = answer(b'{"code":0,"bind_status":"true","access_token":"t","device_key":"k"}')
    return [bytes([12 + number % 4]) + header + query + END + reply
            for number, query in enumerate(gets + sets + actions + more)] + [
                bytes([28]) + header + more[-1] + END + reply,
                bytes([12]) + header + b"method=gw.boa.report&ip=\r\nHost: b" + END + reply]


def clouds():
    """Answers for each of the consumers, chosen by the first byte."""
    device = b'{"code":0,"devices":[{"bind_status":"true","user_id":"u","device_id":"i"}]}'
    offer = (b'{"status":"ok","data":{"app_name":"cloudae","link":"http://h/p","size":10,'
             b'"version_name":"p.tar.gz","version":"1.0.2","rel_info":"n","signature":"s",'
             b'"cloudserver":"on"}}')
    pbx = (b'{"code":"0","access_token":"t","sip_config":{"user":"1","server":"s","password":"p"},'
           b'"sip_status":{"address":"a"},"extensions":[{"n":1}],"join_prefix":"9"}')
    login = b'{"access_token":"t","token_type":"b","expires_in":1}'
    code = b"X-Kzt-Activetoken: 0123456789\r\n"
    return ([bytes([which]) + answer(device) for which in range(9)] + [b"\x10" + answer(offer)] +
            [bytes([24 + which]) + answer(pbx) for which in range(8)] +
            [b"\x18" + answer(b"PNG", code), b"\x20" + answer(login), b"\x20" + login])


def dns_replies():
    """One address, one alias before it, and a name that points at itself."""
    header = b"\0\1\x81\x80\0\1\0%c\0\0\0\0"
    question = b"\4host\7example\0\0\1\0\1"
    address = b"\xc0\x0c\0\1\0\1\0\0\0\5\0\4\x0a\0\0\1"
    alias = b"\xc0\x0c\0\5\0\1\0\0\0\5\0\2\xc0\x11"
    return [b"\x0c" + header % 1 + question + address,
            b"\x0c" + header % 2 + question + alias + address,
            b"\x0c" + header % 1 + b"\xc0\x0c\0\1\0\1" + address]


INI = (b"# comment\n[Config]\ncloudserver=on\napi_server = old.example \nlong=abc+\n def\n"
       b"\r\n[Other]\nkey=value\nloglevel=3\nUMS_SERVER=u\n")
MOVED = b"HTTP/1.1 302 Found\r\nLocation: /other\r\n\r\n"
LIST = (b'[{"app_name":"cloudae","version_name":"c.tar.gz","version":"1.0.30","rel_info":"n"},'
        b'{"app_name":"pluginmgr","version":"1.2.9","size":12}]')
HOSTS = b"127.0.0.1 localhost\n10.0.0.1 a.example\nHW_REVISION=hw: V1.2\nSW_REVISION=sw: 1\n"
UUID = b"01234567-89ab-cdef-0123-456789abcdef"

SEEDS = {
    "agent": [bytes([flag]) + struct.pack("<5I", kind, 1, 2, 3, 4) + text
              for flag in (0, 1) for kind, text in (
                  (0x2100, b"a=1"), (0x3100, b""), (0x3101, b"0123456789ab"), (0x3200, b"5"))],
    "cloud": clouds(),
    "datagram": datagrams(),
    "dns": dns_replies(),
    "encode": [b"\x10Hello, W\xc3\xb6rld %+/?", b"\xff0123456789ab", b"\x00"],
    "files": [value + END + HOSTS for value in
              (b"a.example|10.0.0.2", b"b.example|10.0.0.22", b"a b|$(id)", b"'|1.2.3.4")],
    "flash": [b"ethaddr=00:11:22:33:44:55" + END + b"device_id=" + UUID],
    "ini": [bytes([what]) + value + END + INI for what in range(3) for value in
            (b"new.example", b"a+", b"x" * 501)],
    "receive": [bytes([what, 200]) + pieces + END + text for what in (0, 1, 2, 3, 0x11)
                for pieces in (b"", b"\1\0\5") for text in
                (answer(b"x" * 300), MOVED, b"HTTP/1.0 200 OK\r\n\r\nbody")],
    "redirect": [MOVED, answer(b"x")],
    "url": [b"\xff\xff" + url for url in (b"https://h.example:8443/a/b?c", b"ftp://h", b"h:1/")],
    "version": [b"1.2.3" + END + b"1.2.10", b"1.256" + END + b"2.0", b"1.a" + END],
    "version_list": [b"\xff" + LIST, b"\x05" + LIST],
}

WORDS = {
    "agent": ["\\x00\\x21\\x00\\x00", "\\x00\\x31\\x00\\x00", "\\x01\\x31\\x00\\x00"],
    "cloud": ["code", "devices", "status", "data", "Content-Length: ", "\\x0d\\x0a\\x0d\\x0a",
              "2201", "1004", "null", "access_token", "sip_config", "device_id"],
    "datagram": ["method=", "&id=", "gw.config.set", "gw.config.get", "gw.app.action",
                 "gw.boa.report", "id80000=", "id80014=", "id80037=", "id80038=", "id80002=",
                 "|", "&next=", "pluginName=", "pluginAction=", "\\x0a", "%n", "\\xff"],
    "ini": ["[Config]", "api_server=", "+\\x0a", "#", "\\x0d", "\\x0c", "\\x1a", "checkcycle="],
    "receive": ["HTTP/1.1 302 ", "Location: ", "Content-Length: ", "\\x0d\\x0a\\x0d\\x0a",
                "4294967296", "-1", "2147483647"],
    "redirect": ["HTTP", " 302", "Location", "\\x0d\\x0a"],
    "url": ["http://", "https://", "ftp://", ":"],
    "version_list": ["app_name", "version_name", "version", "rel_info", "size", "null"],
}
