"""What is installed: complete, self-contained and without a trace of the place where it was built."""
import hashlib
import os
import subprocess

from google.protobuf import descriptor_pb2

from kit_sdk import BUILD, ROOT, fresh, in_parallel, install

#: The digests of the usual descriptors, as Debian's package golang-google-genproto-dev has them.
USUAL_ANNOTATIONS = {
    "google/api/http.proto": "ed2fbc72aed8f989785db8031d77cc71b7a108649578781135ea947a9a797ef6",
    "google/api/annotations.proto":
        "ef21918d20db956e3a173f1a39316668d3c1289f5c73110dd101b98124e4dd85",
}

WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Werror"]


def files_below(folder):
    return [path for path in folder.rglob("*") if path.is_file()]


def test_the_components_do_not_overlap(prefix):
    seen = {}
    for component in ("system", "tools", "sdk", "python", "doc"):
        folder = install(f"component-{component}", [component])
        for path in files_below(folder):
            assert seen.setdefault(path.relative_to(folder), component) == component
    assert set(seen) == {path.relative_to(prefix) for path in files_below(prefix)}
    assert {str(path) for path, component in seen.items() if component == "tools"} == {
        "bin/halvoctl", "share/man/man1/halvoctl.1", "share/man/man1/halvoctl-conf.1"}


def test_no_file_names_the_folder_of_the_build(prefix):
    places = [str(ROOT).encode(), str(BUILD).encode()]
    named = [path for path in files_below(prefix)
             if any(place in path.read_bytes() for place in places)]
    assert named == []


def test_only_what_authors_use_is_installed(prefix):
    archives = {path.name for path in prefix.rglob("*.a")}
    assert "libhox_service_common.a" in archives
    assert not [name for name in archives if "_impl" in name or "archive" in name
                or "system_api" in name or "internal" in name]
    assert {path.relative_to(prefix / "share/halvo/proto").as_posix()
            for path in (prefix / "share/halvo/proto").rglob("*.proto")} == {
                "configuration.proto", "google/api/annotations.proto", "google/api/http.proto",
                "introspection.proto", "obstree.proto", "obstree_internals.proto",
                "state_monitoring.proto"}


def this_time(headers):
    """Every third header, others at each commit: all together take more than two minutes of two
    processors. scripts/check compiles all of them as they are in the project. All with
    HALVO_ALL_TIDY=1."""
    if os.environ.get("HALVO_ALL_TIDY") == "1":
        return headers
    count = int(subprocess.run(["git", "rev-list", "--count", "HEAD"], cwd=ROOT, check=True,
                               capture_output=True, text=True).stdout)
    return headers[count % 3::3]


def test_each_header_compiles_alone(prefix):
    root = prefix / "include/halvo"
    out = fresh("headers")

    def compile_alone(header):
        name = header.relative_to(root).as_posix()
        source = out / (name.replace("/", "_") + ".cpp")
        source.write_text(f"#include <{name}>\n")
        words = ["-std=c++17", "-I", str(root), *WARNINGS, "-c", str(source), "-o",
                 str(source.with_suffix(".o"))]
        done = subprocess.run(["ccache", "g++", *words], capture_output=True, text=True,
                              check=False)
        return f"{name}: {done.stderr[:500]}" if done.returncode else None

    headers = this_time(sorted(root.rglob("*.h")))
    assert [text for text in in_parallel(compile_alone, headers) if text] == []


def test_the_protoset_is_what_the_golden_descriptors_say(prefix):
    protoset = (prefix / "share/halvo/halvo.protoset").read_bytes()
    files = descriptor_pb2.FileDescriptorSet.FromString(protoset)
    ours = [file for file in files.file if not file.name.startswith("google/protobuf/")]
    proto_root = prefix / "share/halvo/proto"
    golden = (ROOT / "tests/golden/descriptors.txt").read_text()
    for file in ours:
        text = subprocess.run(
            ["protoc", f"-I{proto_root}", "--decode=google.protobuf.FileDescriptorSet",
             "google/protobuf/descriptor.proto", "obstree.proto", "google/api/annotations.proto"],
            input=descriptor_pb2.FileDescriptorSet(file=[file]).SerializeToString(),
            stdout=subprocess.PIPE, check=True).stdout.decode()
        assert text in golden, file.name
    assert {file.name for file in ours} == {
        path.relative_to(proto_root).as_posix() for path in proto_root.rglob("*.proto")}


def test_the_annotations_are_the_usual_ones_byte_by_byte(prefix):
    """A process that loads both refuses the second one otherwise."""
    files = descriptor_pb2.FileDescriptorSet.FromString(
        (prefix / "share/halvo/halvo.protoset").read_bytes()).file
    assert {file.name: hashlib.sha256(file.SerializeToString()).hexdigest()
            for file in files if file.name in USUAL_ANNOTATIONS} == USUAL_ANNOTATIONS
