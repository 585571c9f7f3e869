# SPDX-License-Identifier: Apache-2.0
"""Prints the bill of materials (SPDX 2.3, JSON) of a built .deb:

    python3 packaging/sbom.py PACKAGE.deb SYSROOT

SYSROOT is where the libraries were that it was built with: / or a folder of build/sysroot. The time
is SOURCE_DATE_EPOCH, so that one commit has one bill."""
import datetime
import hashlib
import json
import os
import pathlib
import subprocess
import sys

LIBRARIES = {  # pkg-config module: (package, licence)
    "openssl": ("OpenSSL", "Apache-2.0"),
    "json-c": ("json-c", "MIT"),
    "libpng": ("libpng", "libpng-2.0"),
}
SUPPLIER = "Organization: the pluginmgr developers"


def field(deb, name):
    return subprocess.run(["dpkg-deb", "-f", deb, name], stdout=subprocess.PIPE, text=True, check=True).stdout.strip()


def library_version(module, sysroot):
    """From the .pc file itself, so that no program of the sysroot has to run."""
    found = next(pathlib.Path(sysroot, "usr").glob(f"lib/*/pkgconfig/{module}.pc"))
    return next(line.partition(":")[2].strip() for line in found.read_text().splitlines()
                if line.startswith("Version:"))


def package(identifier, name, version, licence, **more):
    return {"SPDXID": f"SPDXRef-{identifier}", "name": name, "versionInfo": version,
            "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": licence,
            "licenseDeclared": licence, "copyrightText": "NOASSERTION", **more}


def bill(deb, sysroot):
    digest = hashlib.sha256(pathlib.Path(deb).read_bytes()).hexdigest()
    version, architecture = field(deb, "Version"), field(deb, "Architecture")
    epoch = datetime.datetime.fromtimestamp(int(os.environ.get("SOURCE_DATE_EPOCH", "0")), datetime.timezone.utc)
    own = package("pluginmgr", "pluginmgr", version, "Apache-2.0", supplier=SUPPLIER,
                  packageFileName=os.path.basename(deb), primaryPackagePurpose="APPLICATION",
                  checksums=[{"algorithm": "SHA256", "checksumValue": digest}],
                  externalRefs=[{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                                 "referenceLocator": f"pkg:deb/pluginmgr@{version}?arch={architecture}"}])
    libraries = [package(module, name, library_version(module, sysroot), licence)
                 for module, (name, licence) in LIBRARIES.items()]
    relations = [("SPDXRef-DOCUMENT", "DESCRIBES", own["SPDXID"])] + [
        (own["SPDXID"], "DEPENDS_ON", library["SPDXID"]) for library in libraries]
    return {
        "spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT",
        "name": os.path.basename(deb), "documentNamespace": f"urn:sha256:{digest}",
        "creationInfo": {"created": epoch.strftime("%Y-%m-%dT%H:%M:%SZ"), "creators": [SUPPLIER]},
        "packages": [own, *libraries],
        "relationships": [dict(zip(("spdxElementId", "relationshipType", "relatedSpdxElement"), one))
                          for one in relations],
    }


if __name__ == "__main__":
    print(json.dumps(bill(*sys.argv[1:]), indent=1))
