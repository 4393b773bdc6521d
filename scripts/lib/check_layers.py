"""Checks that each target uses only targets of lower levels in docs/architecture.md.

usage: check_layers.py <build folder>

The table of that document gives each target of the product a level. CMake lists the files of a
target and the targets that it links. A target links no target of its own level or above, and none
without a level; its files include no header of such a target, and no header of gRPC unless it links
gRPC. A public header brings neither the logging library, unless it is about logging, nor headers of
gRPC that are not API.
"""
import json
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
PRODUCT = ("app", "components", "capabilities", "tools")
ROW = re.compile(r"^\|\s*(\d+)\s*\|([^|]*)\|[^|]*\|([^|]*)\|$", re.MULTILINE)
INCLUDE = re.compile(r'^\s*#\s*include\s*[<"]([^>"]+)[>"]', re.MULTILINE)
FLAGS = "hox_build_flags"


class Target:
    """The properties of a target in CMake: its folder, its files and all targets that it links,
    directly or indirectly.

    Paths are relative to the project; those of generated files begin with the build folder.
    """

    def __init__(self, folder="", sources=(), links=()):
        self.folder = folder
        self.sources = list(sources)
        self.links = set(links) - {FLAGS}


def levels_in(document):
    """The level of each target that the table names, and the targets that use gRPC themselves."""
    levels, with_grpc = {}, set()
    for level, names, foreign in ROW.findall(document):
        for name in re.findall(r"`([^`]+)`", names):
            levels[name] = int(level)
            if "grpc++" in foreign:
                with_grpc.add(name)
    return levels, with_grpc


def is_product(path):
    """Whether the file is neither a test nor a fake of a component."""
    folders = path.split("/")
    return folders[0] in PRODUCT and not {"tests", "fake"} & set(folders)


def complaints_of_links(levels, targets):
    for name in sorted(levels.keys() - targets.keys()):
        yield f"{name} has a level and is no target"
    for name, target in sorted(targets.items()):
        if name not in levels:
            if any(is_product(source) for source in target.sources):
                yield f"{name} is a part of the product and has no level"
            continue
        for link in sorted(target.links):
            if link not in levels:
                yield f"{name} links {link}, which has no level"
            elif levels[link] >= levels[name]:
                yield f"{name} (level {levels[name]}) links {link} (level {levels[link]})"


def name_in_includes(path):
    """The name by which a header of this path is included: the part below include/ or below the
    generated code."""
    for folder in ("/include/", "/gen/"):
        if folder in path:
            return path.split(folder, 1)[1]
    return None


def includes_of(target, read):
    """All pairs of (file, included name) of the target, including those of its private headers."""
    open_files = [source for source in target.sources if is_product(source)]
    seen = set(open_files)
    while open_files:
        file = open_files.pop()
        for name in INCLUDE.findall(read(file) or ""):
            yield file, name
            private = f"{target.folder}/src/{name}"
            if private not in seen and read(private) is not None:
                seen.add(private)
                open_files.append(private)


def complaints_of_includes(levels, with_grpc, targets, read):
    owners = {name_in_includes(source): name for name, target in targets.items()
              for source in target.sources if name_in_includes(source)}
    for name, target in sorted(targets.items()):
        if name not in levels:
            continue
        may_grpc = bool(with_grpc & (target.links | {name}))
        for file, included in sorted(set(includes_of(target, read))):
            owner = owners.get(included, name)
            if owner != name and levels.get(owner, levels[name]) >= levels[name]:
                yield f"{file} ({name}) includes {included} of {owner}"
            if not may_grpc and (included.startswith("grpc") or included.endswith(".grpc.pb.h")):
                yield f"{file} ({name}) includes {included}, and uses no gRPC"


def complaints_of_public_headers(targets, read):
    """Each of its users compiles what a public header includes."""
    files = {source for target in targets.values() for source in target.sources}
    for file in sorted(files):
        if not is_product(file) or "/include/" not in file:
            continue
        for included in INCLUDE.findall(read(file) or ""):
            logs = included.startswith("spdlog/") and included != "spdlog/fwd.h"
            if (logs and "/log/" not in file) or included.startswith("grpcpp/impl/"):
                yield f"{file} is a public header and includes {included}"


def read_targets(build):
    """The targets from CMake's file API, which answers when CMake generates."""
    query = build / ".cmake/api/v1/query/codemodel-v2"
    query.parent.mkdir(parents=True, exist_ok=True)
    query.touch()
    subprocess.run(["cmake", str(build)], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                   check=True)
    replies = build / ".cmake/api/v1/reply"
    index = json.loads(max(replies.glob("index-*.json")).read_text())
    model = json.loads((replies / index["reply"]["codemodel-v2"]["jsonFile"]).read_text())
    targets = {}
    for entry in model["configurations"][0]["targets"]:
        described = json.loads((replies / entry["jsonFile"]).read_text())
        # A header-only library is represented by the target that compiles its headers.
        name = described["name"].removesuffix("_verify_interface_header_sets")
        if described["type"] != "UTILITY" and (name == described["name"] or name not in targets):
            targets[name] = Target(
                described["paths"]["source"],
                [source["path"] for source in described.get("sources", [])],
                [link["id"].split("::@")[0] for link in described.get("dependencies", [])])
    return targets


def main():
    levels, with_grpc = levels_in((ROOT / "docs/architecture.md").read_text())
    targets = read_targets(pathlib.Path(sys.argv[1]).resolve())

    def read(path):
        file = ROOT / path
        return file.read_text() if file.is_file() else None

    complaints = [*complaints_of_links(levels, targets),
                  *complaints_of_includes(levels, with_grpc, targets, read),
                  *complaints_of_public_headers(targets, read)]
    print("\n".join(complaints) if complaints else f"{len(levels)} targets in their levels")
    return 1 if complaints else 0


if __name__ == "__main__":
    sys.exit(main())
