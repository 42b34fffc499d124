#!/usr/bin/env python3
"""spdx.py BUILDINFO DEB...: prints an SPDX 2.3 document of Debian packages that were built together.

It lists their files with digests, and what they were built with. Nothing in it depends on when or
where it is made, so two builds that are alike have the same document.
"""

import hashlib
import io
import json
import os
import re
import subprocess
import sys
import tarfile
import uuid
from datetime import datetime, timezone

DOCUMENT = "SPDXRef-DOCUMENT"
SUPPLIER = "Organization: korvex maintainers"
# The owner has chosen no licence yet.
LICENCE = {"licenseConcluded": "NOASSERTION", "copyrightText": "NOASSERTION"}
OWN = {"supplier": SUPPLIER, "downloadLocation": "NOASSERTION", "licenseDeclared": "NONE", **LICENCE}


def output_of(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout


def identifier(*parts):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", "-".join(parts))


def checksums(data, *algorithms):
    return [{"algorithm": name, "checksumValue": hashlib.new(name.lower(), data).hexdigest()}
            for name in algorithms]


def relationship(element, kind, related):
    return {"spdxElementId": element, "relationshipType": kind, "relatedSpdxElement": related}


def files_of(package, path):
    with tarfile.open(fileobj=io.BytesIO(output_of("dpkg-deb", "--fsys-tarfile", path))) as tree:
        for number, member in enumerate(tree):
            if member.isfile():
                yield {"fileName": member.name,
                       "SPDXID": identifier("File", package, str(number)),
                       "checksums": checksums(tree.extractfile(member).read(), "SHA1", "SHA256"),
                       "licenseInfoInFiles": ["NOASSERTION"], **LICENCE}


def verification_code(files):
    return hashlib.sha1("".join(sorted(
        file["checksums"][0]["checksumValue"] for file in files)).encode()).hexdigest()


def built_package(path):
    """The package's element and those of its files."""
    name, version = (output_of("dpkg-deb", "-f", path, field).decode().strip()
                     for field in ("Package", "Version"))
    files = list(files_of(name, path))
    with open(path, "rb") as content:
        sums = checksums(content.read(), "SHA256")
    package = {"name": name, "SPDXID": identifier("Package", name), "versionInfo": version,
               "packageFileName": os.path.basename(path), "checksums": sums,
               "filesAnalyzed": bool(files), **OWN}
    if files:
        package["packageVerificationCode"] = {"packageVerificationCodeValue": verification_code(files)}
        package["licenseInfoFromFiles"] = ["NOASSERTION"]
    return package, files


def build_dependencies(buildinfo):
    block = re.search(r"^Installed-Build-Depends:\n((?: .*\n?)*)", buildinfo, re.MULTILINE)[1]
    for name, version in re.findall(r"^ (\S+) \(= ([^)]+)\)", block, re.MULTILINE):
        yield {"name": name, "SPDXID": identifier("BuiltWith", name), "versionInfo": version,
               "supplier": "NOASSERTION", "downloadLocation": "NOASSERTION",
               "licenseDeclared": "NOASSERTION", "filesAnalyzed": False, **LICENCE}


def source_package(buildinfo):
    name, version = (re.search(rf"^{field}: (\S+)", buildinfo, re.MULTILINE)[1]
                     for field in ("Source", "Version"))
    return {"name": name, "SPDXID": identifier("Source", name), "versionInfo": version,
            "filesAnalyzed": False, **OWN}


def created(buildinfo):
    """What the build took as the time: that of the change log's last entry."""
    epoch = re.search(r'SOURCE_DATE_EPOCH="(\d+)"', buildinfo)[1]
    return datetime.fromtimestamp(int(epoch), timezone.utc).strftime("%Y-%m-%dT%H:%M:%SZ")


def document(buildinfo_path, paths):
    with open(buildinfo_path, encoding="utf-8") as file:
        buildinfo = file.read()
    source, tools = source_package(buildinfo), list(build_dependencies(buildinfo))
    packages, files = [source] + tools, []
    relationships = [relationship(tool["SPDXID"], "BUILD_DEPENDENCY_OF", source["SPDXID"])
                     for tool in tools]
    for path in sorted(paths, key=os.path.basename):
        package, contents = built_package(path)
        relationships += [relationship(DOCUMENT, "DESCRIBES", package["SPDXID"]),
                          relationship(package["SPDXID"], "GENERATED_FROM", source["SPDXID"])]
        relationships += [relationship(package["SPDXID"], "CONTAINS", file["SPDXID"])
                          for file in contents]
        packages.append(package)
        files += contents
    everything = {"packages": packages, "files": files, "relationships": relationships}
    name = os.path.basename(buildinfo_path).removesuffix(".buildinfo")
    content = hashlib.sha256(json.dumps(everything, sort_keys=True).encode()).hexdigest()
    return {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": DOCUMENT, "name": name,
            "documentNamespace": uuid.uuid5(uuid.NAMESPACE_OID, content).urn,
            "creationInfo": {"created": created(buildinfo),
                             "creators": [SUPPLIER, "Tool: korvex-spdx"]},
            **everything}


def main():
    if len(sys.argv) < 3:
        print(__doc__.splitlines()[0], file=sys.stderr)
        return 2
    json.dump(document(sys.argv[1], sys.argv[2:]), sys.stdout, indent=1)
    print()
    return 0


if __name__ == "__main__":
    sys.exit(main())
