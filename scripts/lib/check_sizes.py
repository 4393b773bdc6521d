"""Checks that no file of code has more than 600 lines and no Python function more than 60.

clang-tidy checks the functions of C++ (readability-function-size).
"""
import ast
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
MOST_LINES_OF_A_FILE = 600
MOST_LINES_OF_A_FUNCTION = 60
DATA = {"tests/golden/descriptors.txt"}
TEXTS = (".md", ".json", ".csv")


def complaints(path, text):
    size = len(text.splitlines())
    if size > MOST_LINES_OF_A_FILE:
        yield f"{path}: {size} lines, {MOST_LINES_OF_A_FILE} are allowed"
    if path.endswith(".py") or re.match(r"#!.*\bpython", text):
        for node in ast.walk(ast.parse(text)):
            if isinstance(node, (ast.FunctionDef, ast.AsyncFunctionDef)):
                size = node.end_lineno - node.lineno + 1
                if size > MOST_LINES_OF_A_FUNCTION:
                    yield (f"{path}:{node.lineno}: {node.name} has {size} lines, "
                           f"{MOST_LINES_OF_A_FUNCTION} are allowed")


def main():
    names = subprocess.run(["git", "ls-files", "--cached", "--others", "--exclude-standard"],
                           cwd=ROOT, stdout=subprocess.PIPE, text=True, check=True).stdout
    found = []
    for name in names.splitlines():
        file = ROOT / name
        if file.is_file() and name not in DATA and not name.endswith(TEXTS):
            found += complaints(name, file.read_text())
    print("\n".join(found) if found else "no file and no Python function is too long")
    return 1 if found else 0


if __name__ == "__main__":
    sys.exit(main())
