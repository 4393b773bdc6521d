"""Building against what is installed: with CMake and without, moved, and with mistakes."""
import os
import shutil

import pytest

from kit_sdk import ROOT, configure, fresh, run

HEAD = """\
cmake_minimum_required(VERSION 3.25)
project(author LANGUAGES CXX)
"""

SERVICE = """\
syntax = "proto3";
package Author;
import "obstree.proto";
message Thing {{}}
service Service {{
  rpc one(Thing) returns (Thing) {{ option (Hox.ObserverTree.obs_tree_option) = {{{one}}}; }}
  rpc two(Thing) returns (Thing) {{ option (Hox.ObserverTree.obs_tree_option) = {{{two}}}; }}
}}
"""


def attempt(name, prefix, text, proto=None):
    """What CMake and the build say of a project with these lines."""
    source = fresh(name)
    (source / "CMakeLists.txt").write_text(HEAD + text)
    if proto is not None:
        (source / "author.proto").write_text(proto)
    done = configure(source, source / "build", prefix, check=False)
    if done.returncode == 0 and proto is not None:
        done = run("cmake", "--build", source / "build", check=False)
    # CMake breaks its lines.
    return done.returncode, " ".join(done.stdout.split())


def test_the_example_passes_its_test(lamp):
    run("ctest", "--output-on-failure", cwd=lamp)


def test_the_example_builds_with_clang_by_pkg_config_alone(prefix):
    source = fresh("lamp-pkg-config")
    shutil.copytree(ROOT / "examples/lamp", source, dirs_exist_ok=True)
    pkg_config, = prefix.rglob("halvo.pc")

    def ask(what):
        return run("pkg-config", *what, "halvo",
                   env={"PATH": "/usr/bin:/bin", "PKG_CONFIG_PATH": pkg_config.parent}
                   ).stdout.split()

    run("protoc", "-I.", f"-I{ask(['--variable=protodir'])[0]}", "--cpp_out=.", "--grpc_out=.",
        "--plugin=protoc-gen-grpc=/usr/bin/grpc_cpp_plugin", "lamp.proto", cwd=source)
    for file in ("main.cpp", "lamp.pb.cc", "lamp.grpc.pb.cc"):
        run("ccache", "clang++", "-O0", *ask(["--cflags"]), "-I.", "-c", file, cwd=source)
    run("clang++", "-O0", "main.o", "lamp.pb.o", "lamp.grpc.pb.o", *ask(["--libs"]), "-o", "lamp",
        cwd=source)
    assert "--port" in run(source / "lamp", "--logstdout", "--help", check=False).stdout


def test_the_prefix_can_be_moved(prefix):
    moved = fresh("moved") / "elsewhere"
    shutil.copytree(prefix, moved)
    hidden = prefix.with_name("hidden")
    prefix.rename(hidden)
    try:
        status, text = attempt(
            "in-moved", moved,
            "find_package(halvo 0.1 REQUIRED COMPONENTS service testing)\n"
            'message(STATUS "protos in ${halvo_PROTO_DIR}")\n')
        assert (status, f"protos in {moved}/share/halvo/proto" in text) == (0, True), text
    finally:
        hidden.rename(prefix)


def test_the_package_can_be_asked_for_twice_and_in_parts(prefix):
    status, text = attempt(
        "twice", prefix,
        "find_package(halvo 0.1 REQUIRED COMPONENTS tree)\n"
        "if(TARGET gRPC::grpc++)\n  message(FATAL_ERROR \"the tree has gRPC\")\nendif()\n"
        "find_package(halvo 0.1 REQUIRED)\nfind_package(halvo 0.1 REQUIRED COMPONENTS service)\n"
        "get_target_property(name halvo::service_common IMPORTED_LOCATION_RELEASE)\n"
        'message(STATUS "${halvo_VERSION} ${name}")\n')
    assert status == 0, text
    assert "0.1.0 " in text


def test_an_optional_component_may_be_absent(prefix):
    without = fresh("without-testing")
    shutil.copytree(prefix, without, dirs_exist_ok=True)
    next(without.rglob("halvoTesting.cmake")).unlink()
    asked = ("find_package(halvo 0.1 REQUIRED COMPONENTS service OPTIONAL_COMPONENTS testing none)\n"
             'message(STATUS "${halvo_service_FOUND} ${halvo_testing_FOUND} ${halvo_none_FOUND}")\n')
    status, text = attempt("optional", prefix, asked)
    assert (status, "TRUE TRUE FALSE" in text) == (0, True), text
    status, text = attempt("optional", without, asked)
    assert (status, "TRUE FALSE FALSE" in text) == (0, True), text
    status, text = attempt("optional", without, "find_package(halvo REQUIRED COMPONENTS testing)\n")
    assert status != 0
    assert 'halvo is installed without its component "testing"' in text


@pytest.mark.parametrize("words, complaint", [
    ("0.2 REQUIRED", "version: 0.1.0"),
    ("0.1 REQUIRED COMPONENTS trees", 'halvo has no component "trees"'),
])
def test_what_is_not_there_is_refused(prefix, words, complaint):
    status, text = attempt("absent", prefix, f"find_package(halvo {words})\n")
    assert status != 0
    assert complaint in text


@pytest.mark.parametrize("words, complaint", [
    ("ROOT . PROTOS none.proto", "halvo_generate_obstree(p): there is no file"),
    ("ROOT .", "halvo_generate_obstree(p): PROTOS names no file"),
    ("ROOT . PROTO a.proto", "unknown argument"),
])
def test_a_wrong_call_is_an_error_of_the_configuration(prefix, words, complaint):
    status, text = attempt("wrong-call", prefix, "find_package(halvo 0.1 REQUIRED)\n"
                           f"halvo_generate_obstree(p {words})\n")
    assert status != 0
    assert complaint in text


@pytest.mark.parametrize("one, two, complaint", [
    ('key: "/a" type: READ', 'key: "/b"',
     'author.proto: method Service.two has the key "/b" and no type'),
    ("type: READ", 'key: "/b" type: READ',
     "author.proto: method Service.one has an obs_tree_option without a key"),
    ('key: "/a" type: READ', 'key: "/a" type: READ',
     'author.proto: method Service.two is another one with the key "/a" and the type READ'),
])
def test_a_wrong_option_is_an_error_of_the_build(prefix, one, two, complaint):
    status, text = attempt("wrong-option", prefix, "find_package(halvo 0.1 REQUIRED)\n"
                           "halvo_generate_obstree(p PROTOS author.proto)\n",
                           SERVICE.format(one=one, two=two))
    assert status != 0
    assert complaint in text


def test_a_proto_may_be_in_a_folder(prefix):
    source = fresh("in-folder")
    (source / "protos/author/v1").mkdir(parents=True)
    (source / "protos/author/v1/author.proto").write_text(
        SERVICE.replace("service Service", "service Things").format(
            one='key: "/a" type: READ', two='key: "/b" type: READ'))
    (source / "CMakeLists.txt").write_text(
        HEAD + "find_package(halvo 0.1 REQUIRED)\n"
        "halvo_generate_obstree(p ROOT protos PROTOS author/v1/author.proto)\n")
    configure(source, source / "build", prefix)
    run("cmake", "--build", source / "build")
    assert (source / "build/p.gen/author/v1/author.grpc.pb.h").exists()


def test_the_example_builds_by_the_commands_of_the_documents(prefix):
    """With the generator that CMake takes by itself."""
    source = fresh("lamp-by-documents")
    shutil.copytree(ROOT / "examples/lamp", source, dirs_exist_ok=True)
    cache = {"CMAKE_CXX_COMPILER_LAUNCHER": "ccache"} if shutil.which("ccache") else {}
    environment = {name: value for name, value in os.environ.items() if name != "CMAKE_GENERATOR"}
    for words in (["cmake", "-B", "build", f"-DCMAKE_PREFIX_PATH={prefix}"],
                  ["cmake", "--build", "build"], ["ctest", "--test-dir", "build"]):
        run(*words, cwd=source, env={**environment, **cache})
    assert (source / "build/Makefile").exists()


def test_an_author_may_bring_the_annotations(prefix):
    status, text = attempt(
        "own-annotations", prefix,
        "add_library(annotations INTERFACE)\nset(halvo_GOOGLE_API_TARGET annotations)\n"
        "find_package(halvo 0.1 REQUIRED)\n"
        "get_target_property(linked halvo::google_api_protos INTERFACE_LINK_LIBRARIES)\n"
        'message(STATUS "linked: ${linked}")\n')
    assert status == 0, text
    assert "linked: annotations" in text
