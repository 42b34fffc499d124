"""check_spdx.py DOCUMENT DEB...: holds an SPDX 2.3 document against the rules of the format, and
against what is in the packages. Prints what is wrong; exit code 1 if anything is."""

import hashlib
import json
import os
import re
import subprocess
import sys
import tempfile

IDENTIFIER = re.compile(r"SPDXRef-[A-Za-z0-9.-]+")
DIGEST_LENGTHS = {"SHA1": 40, "SHA256": 64}
REQUIRED = {
    "document": {"spdxVersion", "dataLicense", "SPDXID", "name", "documentNamespace",
                 "creationInfo", "packages", "files", "relationships"},
    "package": {"name", "SPDXID", "downloadLocation"},
    "file": {"fileName", "SPDXID", "checksums"},
}
RELATIONSHIPS = {"DESCRIBES", "CONTAINS", "BUILD_DEPENDENCY_OF", "GENERATED_FROM"}


def missing_fields(document):
    elements = [("document", document)]
    elements += [("package", package) for package in document["packages"]]
    elements += [("file", file) for file in document["files"]]
    for kind, element in elements:
        for field in sorted(REQUIRED[kind] - element.keys()):
            yield f"{kind} {element.get('SPDXID')} has no {field}"


def wrong_head(document):
    expected = {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT"}
    for field, value in expected.items():
        if document[field] != value:
            yield f"{field} is '{document[field]}', expected '{value}'"
    if not re.fullmatch(r"[a-z]+:[^\s#]+", document["documentNamespace"]):
        yield f"documentNamespace is '{document['documentNamespace']}', expected a URI without '#'"
    info = document["creationInfo"]
    if not re.fullmatch(r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ", info["created"]):
        yield f"created is '{info['created']}', expected YYYY-MM-DDThh:mm:ssZ"
    for creator in info["creators"]:
        if not re.match(r"(Person|Organization|Tool): .", creator):
            yield f"creator '{creator}' is no person, organization or tool"


def wrong_identifiers(document):
    known = [document["SPDXID"]] + [e["SPDXID"] for e in document["packages"] + document["files"]]
    for name in sorted({name for name in known if known.count(name) > 1}):
        yield f"{name} is used twice"
    for name in known:
        if not IDENTIFIER.fullmatch(name):
            yield f"{name} is no identifier"
    for relation in document["relationships"]:
        for end in (relation["spdxElementId"], relation["relatedSpdxElement"]):
            if end not in known:
                yield f"a relationship names {end}, which is not there"
        if relation["relationshipType"] not in RELATIONSHIPS:
            yield f"relationship '{relation['relationshipType']}' is unknown"


def wrong_digests(document):
    for element in document["packages"] + document["files"]:
        for sum_ in element.get("checksums", []):
            length = DIGEST_LENGTHS.get(sum_["algorithm"])
            if not re.fullmatch(r"[0-9a-f]{%d}" % (length or 0), sum_["checksumValue"]):
                yield f"{element['SPDXID']}: {sum_['algorithm']} is '{sum_['checksumValue']}'"


def contents(path):
    """Digest by name of every file of a package, as a person would look: unpacked."""
    with tempfile.TemporaryDirectory() as folder:
        subprocess.run(["dpkg-deb", "-x", path, folder], check=True)
        for place, _, names in os.walk(folder):
            for name in names:
                file = os.path.join(place, name)
                if not os.path.islink(file):
                    with open(file, "rb") as data:
                        yield "./" + os.path.relpath(file, folder), data.read()


def wrong_contents(document, path):
    name = os.path.basename(path)
    package = next((p for p in document["packages"] if p.get("packageFileName") == name), None)
    if package is None:
        yield f"{name} is not described"
        return
    with open(path, "rb") as data:
        if package["checksums"][0]["checksumValue"] != hashlib.sha256(data.read()).hexdigest():
            yield f"the digest of {name} is another one"
    inside = {relation["relatedSpdxElement"] for relation in document["relationships"]
              if relation["relationshipType"] == "CONTAINS"
              and relation["spdxElementId"] == package["SPDXID"]}
    described = {file["fileName"]: {s["algorithm"]: s["checksumValue"] for s in file["checksums"]}
                 for file in document["files"] if file["SPDXID"] in inside}
    found = {file: {"SHA1": hashlib.sha1(data).hexdigest(),
                    "SHA256": hashlib.sha256(data).hexdigest()} for file, data in contents(path)}
    for file in sorted(described.keys() | found.keys()):
        if described.get(file) != found.get(file):
            yield f"{name}: {file} is {found.get(file)}, described as {described.get(file)}"
    code = hashlib.sha1("".join(sorted(s["SHA1"] for s in found.values())).encode()).hexdigest()
    if package.get("packageVerificationCode", {}).get("packageVerificationCodeValue") != code:
        yield f"{name}: the verification code is another one, expected {code}"


def wrong_dependencies(document):
    tools = {relation["spdxElementId"] for relation in document["relationships"]
             if relation["relationshipType"] == "BUILD_DEPENDENCY_OF"}
    if not tools:
        yield "nothing says what the packages were built with"
    for package in document["packages"]:
        if package["SPDXID"] in tools and not package.get("versionInfo"):
            yield f"{package['name']} was used in an unknown version"


def main(path, *debs):
    with open(path, encoding="utf-8") as file:
        document = json.load(file)
    wrong = list(missing_fields(document))
    if not wrong:
        for check in (wrong_head, wrong_identifiers, wrong_digests, wrong_dependencies):
            wrong += check(document)
        for deb in debs:
            wrong += wrong_contents(document, deb)
    print("\n".join(wrong) or f"{len(document['files'])} files in {len(debs)} packages, "
          f"{len(document['packages'])} packages: as described")
    return 1 if wrong else 0


sys.exit(main(*sys.argv[1:]))
