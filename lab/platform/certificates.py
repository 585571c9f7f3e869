# SPDX-License-Identifier: Apache-2.0
"""A certificate authority made on the spot, and one certificate for all hosts of the platform."""
import os
import ssl
import subprocess

FOLDER = "/run/lab/tls"
DEVICE_STORE = "/etc/ssl/certs/ca-certificates.crt"
LIFETIME_DAYS = "36500"
EXTENSIONS = """[req]
distinguished_name = name
prompt = no
[name]
CN = Lab
[authority]
basicConstraints = critical,CA:TRUE
keyUsage = critical,keyCertSign
subjectKeyIdentifier = hash
[server]
basicConstraints = CA:FALSE
subjectAltName = {names}
"""
# Valid long before today, so that a device whose clock is faked still accepts it.
BACKDATED = {"LD_PRELOAD": "/usr/$LIB/faketime/libfaketime.so.1",
             "FAKETIME": "@2000-01-01 00:00:00"}


def _openssl(line):
    subprocess.run(["/usr/bin/openssl"] + line.split(), cwd=FOLDER, check=True,
                   capture_output=True, env=os.environ | BACKDATED)


def _make(names):
    os.makedirs(FOLDER)
    with open(FOLDER + "/lab.cnf", "w") as file:
        file.write(EXTENSIONS.format(names=",".join("DNS:" + name for name in names)))
    key = "-newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -config lab.cnf"
    _openssl(f"req -x509 {key} -extensions authority -days {LIFETIME_DAYS} "
             "-subj /CN=Lab-CA -keyout ca.key -out ca.pem")
    _openssl(f"req -new {key} -subj /CN={names[0]} -keyout server.key -out server.csr")
    _openssl("x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial "
             f"-days {LIFETIME_DAYS} -extfile lab.cnf -extensions server -out server.pem")


def server_context(names):
    """A TLS server context valid for the names; made once for a sandbox, and its authority is
    put into the device's certificate store."""
    if not os.path.exists(FOLDER + "/server.pem"):
        _make(names)
    with open(FOLDER + "/ca.pem") as authority, open(DEVICE_STORE, "w") as store:
        store.write(authority.read())
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    # BusyBox wget names no signature algorithms, which means SHA-1; level 0 still signs with it.
    context.set_ciphers("DEFAULT:@SECLEVEL=0")
    context.load_cert_chain(FOLDER + "/server.pem", FOLDER + "/server.key")
    return context
