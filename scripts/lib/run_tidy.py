"""Runs clang-tidy over the project's own sources, one on each processor, the slowest first.

usage: run_tidy.py <build folder with compile_commands.json> [path prefix...]

Without a prefix, only every sixth source and every eighteenth test is checked, each time others: the
number of commits decides. HALVO_ALL_TIDY=1 checks them all.
"""
import concurrent.futures
import json
import os
import pathlib
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]

# The checks for tests: names, dead declarations, moves. The other checks double the time per file,
# and GoogleTest's macros and fixtures trigger many of them.
TEST_CHECKS = ("-*,bugprone-use-after-move,misc-unused-using-decls,modernize-loop-convert,"
               "modernize-use-equals-default,modernize-use-nullptr,modernize-use-override,"
               "performance-for-range-copy,readability-function-size,readability-identifier-naming")


#: Of how many sources and of how many tests one run checks one.
SOURCE_SAMPLE = 6
TEST_SAMPLE = 18


def is_test(path):
    return "tests" in path.parts


def sampled(paths):
    """Those whose turn it is at this commit."""
    count = int(subprocess.run(["git", "rev-list", "--count", "HEAD"], cwd=ROOT, check=True,
                               stdout=subprocess.PIPE, text=True).stdout)
    tests = sorted(path for path in paths if is_test(path))
    others = sorted(path for path in paths if not is_test(path))
    chosen = {*tests[count % TEST_SAMPLE::TEST_SAMPLE], *others[count % SOURCE_SAMPLE::SOURCE_SAMPLE]}
    return [path for path in paths if path in chosen]


def own_sources(build, prefixes):
    """The sources of the compilation database that are in the tree and not in a build folder."""
    entries = json.loads((build / "compile_commands.json").read_text())
    files = {pathlib.Path(entry["file"]).resolve() for entry in entries}
    for file in sorted(files, key=lambda name: name.stat().st_size if name.exists() else 0,
                       reverse=True):
        if not file.is_relative_to(ROOT):
            continue
        path = file.relative_to(ROOT)
        if path.parts[0] != "build" and (not prefixes or str(path).startswith(prefixes)):
            yield path


def tidy(build, path):
    """One run: the path, the output of clang-tidy, whether it succeeded, and the seconds it took.
    """
    start = time.monotonic()
    # The database contains GCC's command lines; clang does not know all of its warnings.
    checks = [f"--checks={TEST_CHECKS}"] if is_test(path) else []
    run = subprocess.run(
        ["clang-tidy", "-p", str(build), "--quiet", *checks,
         "--extra-arg=-Wno-unknown-warning-option", str(path)],
        cwd=ROOT, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, check=False)
    errors = run.stderr if run.returncode and not run.stdout else ""
    return path, run.stdout + errors, run.returncode == 0, time.monotonic() - start


def main():
    build = pathlib.Path(sys.argv[1]).resolve()
    prefixes = tuple(sys.argv[2:])
    sources = list(own_sources(build, prefixes))
    if not prefixes and not os.environ.get("HALVO_ALL_TIDY"):
        sources = sampled(sources)
    bad = 0
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count() or 2) as pool:
        for path, text, content, seconds in pool.map(lambda file: tidy(build, file), sources):
            if os.environ.get("HALVO_TIDY_TIMES"):
                print(f"{seconds:6.1f} s  {path}", flush=True)
            if not content:
                bad += 1
                print(text, flush=True)
    print(f"clang-tidy: {len(sources)} sources, {bad} with findings")
    return 1 if bad or not sources else 0


if __name__ == "__main__":
    sys.exit(main())
