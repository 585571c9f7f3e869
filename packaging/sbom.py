# SPDX-License-Identifier: Apache-2.0
"""Prints the bill of materials (SPDX 2.3, JSON) of a built .deb:

    python3 packaging/sbom.py PACKAGE.deb SYSROOT

It lists the package and all that it depends on, in the versions of SYSROOT, which it was built with:
/ or a folder of build/sysroot. A device may have others. The time is SOURCE_DATE_EPOCH, so that one
commit has one bill."""
import datetime
import hashlib
import json
import os
import pathlib
import platform
import re
import subprocess
import sys
import urllib.parse
import uuid

# What their authors declare, most of their files in mind; Debian's copyright files tell all of it.
LICENCES = {
    "libc6": "LGPL-2.1-or-later",
    "libgcc-s1": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libjson-c5": "MIT",
    "libpng16-16": "libpng-2.0",
    "libssl3": "Apache-2.0",
    "libstdc++6": "GPL-3.0-or-later WITH GCC-exception-3.1",
}
SUPPLIER = "Organization: the pluginmgr developers"


def printed(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True, check=True).stdout.strip()


def package(name, version, architecture, vendor, licence, **more):
    place = "/".join(urllib.parse.quote(word, safe="~") for word in (vendor, name))
    return {"SPDXID": "SPDXRef-Package-" + re.sub("[^A-Za-z0-9.-]", "-", name), "name": name,
            "versionInfo": version, "downloadLocation": "NOASSERTION", "filesAnalyzed": False,
            "licenseDeclared": licence, "licenseConcluded": "NOASSERTION", "copyrightText": "NOASSERTION",
            "externalRefs": [{
                "referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl", "referenceLocator":
                f"pkg:deb/{place}@{urllib.parse.quote(version, safe='~')}?arch={architecture}"}], **more}


def dependencies(deb, sysroot, architecture):
    system = platform.freedesktop_os_release()
    for name in re.findall(r"(?:^|, )([^ ,]+)", printed("dpkg-deb", "-f", deb, "Depends")):
        version = printed("dpkg-query", f"--admindir={pathlib.Path(sysroot, 'var/lib/dpkg')}", "-W",
                          "-f", "${Version}", f"{name}:{architecture}")
        yield package(name, version, architecture, system["ID"], LICENCES[name],
                      supplier="Organization: " + system["NAME"], primaryPackagePurpose="LIBRARY")


def bill(deb, sysroot):
    version, architecture = (printed("dpkg-deb", "-f", deb, name) for name in ("Version", "Architecture"))
    digest = hashlib.sha256(pathlib.Path(deb).read_bytes()).hexdigest()
    epoch = datetime.datetime.fromtimestamp(int(os.environ.get("SOURCE_DATE_EPOCH", "0")), datetime.timezone.utc)
    own = package("pluginmgr", version, architecture, "pluginmgr", "Apache-2.0", supplier=SUPPLIER,
                  packageFileName=os.path.basename(deb), primaryPackagePurpose="APPLICATION",
                  checksums=[{"algorithm": "SHA256", "checksumValue": digest}])
    own |= {"licenseConcluded": "Apache-2.0", "copyrightText": "2026 the pluginmgr developers"}
    libraries = list(dependencies(deb, sysroot, architecture))
    relations = [("SPDXRef-DOCUMENT", "DESCRIBES", own["SPDXID"])] + [
        (own["SPDXID"], "DEPENDS_ON", library["SPDXID"]) for library in libraries]
    document = {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": os.path.basename(deb),
        "creationInfo": {"created": epoch.strftime("%Y-%m-%dT%H:%M:%SZ"),
                         "creators": [SUPPLIER, "Tool: packaging/sbom.py"]},
        "packages": [own, *libraries],
        "relationships": [dict(zip(("spdxElementId", "relationshipType", "relatedSpdxElement"), one))
                          for one in relations],
    }
    # A name of its own for each content.
    return document | {"documentNamespace": uuid.uuid5(uuid.NAMESPACE_OID, json.dumps(document)).urn}


if __name__ == "__main__":
    print(json.dumps(bill(*sys.argv[1:]), indent=1))
