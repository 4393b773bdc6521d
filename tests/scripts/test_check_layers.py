"""Tests the reports of check_layers.py on targets and includes."""
from check_layers import (Target, complaints_of_includes, complaints_of_links,
                          complaints_of_public_headers, levels_in)

DOCUMENT = """
| Level | Target | Folder | Foreign libraries |
|---|---|---|---|
| 1 | `utils` | `components/utils` | fmt |
| 2 | `left`, `right` (a note) | `components/left`, `components/right` | |
| 3 | `edge` | `components/edge` | grpc++ |

| Lock | Guards | Held while |
|---|---|---|
| a `mutex` | 1 | 2 |
"""
LEVELS = {"utils": 1, "left": 2, "right": 2, "edge": 3}


def target(name, links=(), headers=(), sources=()):
    folder = f"components/{name}"
    return Target(folder, [*(f"{folder}/include/hox/{name}/{header}" for header in headers),
                           *(f"{folder}/src/{source}" for source in sources)], links)


def targets(**changes):
    found = {"utils": target("utils", headers=["u.h"]),
             "left": target("left", ["utils"], ["l.h"], ["l.cpp"]),
             "right": target("right", ["utils", "hox_build_flags"], ["r.h"]),
             "edge": target("edge", ["utils", "left"], ["e.h"])}
    found.update(changes)
    return found


def links(**changes):
    return list(complaints_of_links(LEVELS, targets(**changes)))


def includes(files):
    return list(complaints_of_includes(LEVELS, {"edge"}, targets(), files.get))


def test_the_levels_are_read_from_the_table():
    assert levels_in(DOCUMENT) == (LEVELS, {"edge"})


def test_links_downward_are_fine():
    assert links() == []


def test_a_link_to_the_same_level_or_upward_is_told():
    assert links(left=target("left", ["right"])) == ["left (level 2) links right (level 2)"]
    assert links(utils=target("utils", ["edge"])) == ["utils (level 1) links edge (level 3)"]


def test_a_link_to_a_target_without_a_level_is_told():
    assert links(left=target("left", ["kit"]), kit=Target("testing", ["testing/src/kit.cpp"])) == [
        "left links kit, which has no level"]


def test_a_part_of_the_product_has_a_level_and_a_test_needs_none():
    assert links(more=target("more", sources=["m.cpp"])) == [
        "more is a part of the product and has no level"]
    assert links(left_test=Target("components/left", ["components/left/tests/l_test.cpp"],
                                  ["left", "right"])) == []
    assert links(left_fake=Target("components/left", ["components/left/src/fake/l.cpp"],
                                  ["left"])) == []


def test_a_level_without_a_target_is_told():
    found = targets()
    del found["right"]
    assert list(complaints_of_links(LEVELS, found)) == ["right has a level and is no target"]


def test_includes_of_lower_levels_and_of_the_own_one_are_fine():
    assert includes({"components/left/src/l.cpp":
                     '#include "hox/left/l.h"\n#include <hox/utils/u.h>\n#include <vector>\n'}) == []


def test_an_include_of_a_level_mate_or_upward_is_told():
    file = "components/left/src/l.cpp"
    assert includes({file: '#include "hox/right/r.h"\n'}) == [
        f"{file} (left) includes hox/right/r.h of right"]
    file = "components/utils/include/hox/utils/u.h"
    assert includes({file: '#pragma once\n#  include "hox/edge/e.h"\n'}) == [
        f"{file} (utils) includes hox/edge/e.h of edge"]


def test_private_headers_are_followed():
    files = {"components/left/src/l.cpp": '#include "deep/private.h"\n',
             "components/left/src/deep/private.h": '#include "hox/edge/e.h"\n#include "l2.h"\n',
             "components/left/src/l2.h": '#include "deep/private.h"\n'}
    assert includes(files) == [
        "components/left/src/deep/private.h (left) includes hox/edge/e.h of edge"]


def test_grpc_is_for_those_who_link_it():
    file = "components/left/src/l.cpp"
    assert includes({file: "#include <grpcpp/server.h>\n"}) == [
        f"{file} (left) includes grpcpp/server.h, and uses no gRPC"]
    assert includes({file: '#include "any.grpc.pb.h"\n'}) == [
        f"{file} (left) includes any.grpc.pb.h, and uses no gRPC"]
    assert includes({"components/edge/include/hox/edge/e.h": "#include <grpcpp/server.h>\n"}) == []


def public_headers(file, text):
    name = file.split("/")[1]
    return list(complaints_of_public_headers({name: Target(f"components/{name}", [file])},
                                             {file: text}.get))


def test_a_public_header_brings_no_logging_library():
    file = "components/left/include/hox/left/l.h"
    assert public_headers(file, "#include <spdlog/fwd.h>\n") == []
    assert public_headers(file, "#include <spdlog/logger.h>\n") == [
        f"{file} is a public header and includes spdlog/logger.h"]
    assert public_headers("components/left/include/hox/left/log/l.h",
                          "#include <spdlog/logger.h>\n") == []
    assert public_headers("components/left/src/l.h", "#include <spdlog/logger.h>\n") == []


def test_a_public_header_includes_only_what_is_api_of_grpc():
    file = "components/edge/include/hox/edge/e.h"
    assert public_headers(file, "#include <grpcpp/impl/codegen/proto_utils.h>\n") == [
        f"{file} is a public header and includes grpcpp/impl/codegen/proto_utils.h"]
