# SPDX-License-Identifier: Apache-2.0
"""Seed inputs of the fuzz targets, in the layout that each target's body() reads."""

import struct

END = b"\xff"  # of a part
GET, SET, ACTION = (b"method=gw." + name for name in (
    b"config.get&id=", b"config.set&", b"app.action&"))


def answer(body, head=b""):
    """One HTTP answer of a server."""
    return b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n%s\r\n%s" % (len(body), head, body)


# What the platform, the accounts server and the PBX service answer.
DEVICE = (b'{"code":0,"devices":[{"bind_status":"false","user_id":"u","device_id":"i"}],"token":"t",'
          b'"device_key":"k","active_state":"true","device_authcode":"c","grantee_id":"g"}')
OFFER = (b'{"status":"ok","data":{"app_name":"cloudae","link":"http://h/p","size":10,"signature":"s",'
         b'"version_name":"p.tar.gz","to_version":"1.0.2","rel_info":"n","force_upgrade":"true",'
         b'"cloudserver":"on"}}')
PBX = (b'{"code":"0","access_token":"t","sip_config":{"user":"1","server":"s","password":"p"},'
       b'"sip_status":{"address":"a"},"extensions":[{"n":1}],"join_prefix":"9"}')
ANSWERS = [answer(DEVICE), answer(PBX), answer(b'{"code":1004}'), answer(b'{"code":"2201"}'),
           answer(b'{"code":20006}'), answer(b'{"code":0,"devices":[]}'), answer(b"x" * 5000), b"\0"]
QUERIES = [GET + one for one in (
    b"80000", b"80002", b"80005", b"80011", b"80031", b"80036&next=5", b"80037", b"80038",
    b"80025&language=chinese", b"80031&a=80035,80036,get_kq_config,device_vcode")] + [
        SET + one for one in (
            b"id80000=on", b"id80000=ums", b"id80000=disable", b"id80014=ums.example", b"id80014=",
            b"id80007=token&id80002=true", b"id80003=user&id80004=secret&id80002=true",
            b"id80002=false", b"id80035=on", b"id80037=sip.example|10.0.0.2",
            b"id80038=a.example|10.0.0.3")] + [
                ACTION + one for one in (
                    b"pluginName=cloudae&pluginAction=update",
                    b"pluginName=cloudae&pluginAction=cancel", b"authcode=create",
                    b"authcode=delete", b"device_vcode=1234", b"quorvel_action=get_kq_qrcode",
                    b"quorvel_action=get_kq_config",
                    b"quorvel_action=check_kq_qrcode&active_toekn=t")] + [
                        b"method=gw.boa.report&ip=10.0.0.9", b"method=gw.boa.report&ip=\r\nHost: b"]
HEADER = struct.pack("<8I", 7, 7, 11, 0x0A000001, 1, 0xABCD, 0x8888, 0)
ACCOUNT = b'{"user":"1","server":"s","password":"p"}'
LONG = answer(b'{"code":0,"sip_config":{"x":[' + b"1," * 1900 + b"1]}}")  # twice that in a reply
KNOWN = b"\x00\x03\x07\x0f"  # states of the registration

# A DNS reply with one address, with an alias before it, with a name that points at itself.
DNS, QUESTION = b"\0\1\x81\x80\0\1\0%c\0\0\0\0", b"\4host\7example\0\0\1\0\1"
ADDRESS, ALIAS = b"\xc0\x0c\0\1\0\1\0\0\0\5\0\4\x0a\0\0\1", b"\xc0\x0c\0\5\0\1\0\0\0\5\0\2\xc0\x11"

INI = (b"# comment\n[Config]\ncloudserver=on\napi_server = old.example \nlong=abc+\n def\n\r\n"
       b"accounts_server=b.example\nactive_token=t\nconn_timeout=7\nloglevel=3\n"
       b"[Update]\ncheckcycle=90\n[Other]\nUMS_SERVER=u\n")
MOVED = b"HTTP/1.1 302 Found\r\nLocation: /other\r\n\r\n"
LIST = (b'[{"app_name":"cloudae","version_name":"c.tar.gz","version":"1.0.30","rel_info":"%s"},'
        b'{"app_name":"pluginmgr","version":"1.2.9","size":12}, 7]')
HOSTS = b"127.0.0.1 localhost\n10.0.0.1 a.example\nHW_REVISION=hw: V1.2\nSW_REVISION=sw: 1\n"
UUID = b"01234567-89ab-cdef-0123-456789abcdef"

SEEDS = {
    "agent": [bytes([flag]) + struct.pack("<5I", kind, 1, 2, 3, 4) + text
              for flag in (0, 1) for kind, text in (
                  (0x2100, b"a=1"), (0x3100, b""), (0x3101, b"0123456789ab"), (0x3200, b"5"))],
    "cloud": [bytes([which, known]) + ANSWERS[0] for which in range(15) for known in KNOWN[1:3]] +
             [bytes([16, known]) + text for known in KNOWN for text in ANSWERS] +
             [bytes([32, 3]) + answer(OFFER),
              b"\x30\0" + answer(b"PNG", b"X-Kzt-Activetoken: 0123456789\r\n")] +
             [bytes([48 + which, 3]) + answer(PBX) for which in range(6)],
    "datagram": [bytes([mode]) + HEADER + query + END + account + END + text
                 for mode, account, text in ((13, ACCOUNT, ANSWERS[0]), (46, b"", ANSWERS[1]),
                                             (31, b"[]", ANSWERS[4]), (13, b"", LONG)) for query in QUERIES],
    "dns": [b"\x0c" + DNS % 1 + QUESTION + ADDRESS, b"\x0c" + DNS % 2 + QUESTION + ALIAS + b"\xc0\x11" + ADDRESS[2:],
            b"\x0c" + DNS % 1 + b"\xc0\x0c\0\1\0\1" + ADDRESS],
    "encode": [b"\x10Hello, W\xc3\xb6rld %+/?", b"\xff0123456789ab", b"\x00"],
    "files": [value + END + HOSTS for value in
              (b"a.example|10.0.0.2", b"b.example|10.0.0.22", b"a b|$(id)", b"'|1.2.3.4")],
    "flash": [b"ethaddr=00:11:22:33:44:55" + END + b"device_id=" + UUID],
    "ini": [bytes([what]) + value + END + text for what in range(3) for value in
            (b"new.example", b" a ", b"a+", b"x" * 501) for text in
            (INI, INI + b"y=" + b"z" * 600 + b"+\n" + b"z" * 500)],
    "receive": [bytes([what, 200]) + pieces + END + text for what in (0, 1, 2, 3, 4, 0x14)
                for pieces in (b"", b"\1\0\5") for text in
                (answer(b"x" * 300), MOVED + answer(b"y"), b"HTTP/1.0 200 OK\r\n\r\nbody")] +
               [b"\3\0%c" % len(MOVED) + END + 6 * MOVED],
    "redirect": [MOVED, answer(b"x")],
    "url": [b"\xff\xff" + url for url in (b"https://h.example:8443/a/b?c", b"ftp://h", b"h:1/")],
    "version": [b"1.2.3" + END + b"1.2.10", b"1.256" + END + b"2.0", b"1.a" + END],
    "version_list": [size + LIST % note for size, note in (
        (b"\xff", b"n"), (b"\x05", b"n"), (b"\x40", b"\xc3\xa4" * 600))],
}
