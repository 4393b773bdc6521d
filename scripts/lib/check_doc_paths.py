"""Checks that every path named in the documents exists.

A path is a text in backquotes, or the target of a link, that begins with a name in the project's
top folder. Build output (build/...) and paths with a placeholder (<name>, *, ...) are ignored.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
QUOTED = re.compile(r"`([^`\n]+)`")
LINK = re.compile(r"\]\(([^)\s]+)\)")


def documents():
    names = subprocess.run(
        ["git", "ls-files", "--cached", "--others", "--exclude-standard", "--", "*.md"],
        cwd=ROOT, stdout=subprocess.PIPE, text=True, check=True).stdout
    return [ROOT / name for name in names.splitlines() if (ROOT / name).exists()]


def named_paths(text):
    """Pairs of (path, whether it is relative to the document's folder)."""
    for match in QUOTED.finditer(text):
        word = match.group(1).split()[0]
        if re.fullmatch(r"[\w.+/-]+", word) and "..." not in word:
            yield word, False
    for match in LINK.finditer(text):
        target = match.group(1).split("#")[0]
        if target and "://" not in target:
            yield target, True


def main():
    top = {entry.name for entry in ROOT.iterdir()} - {"build", ".git"}
    missing = []
    for document in documents():
        for path, relative in named_paths(document.read_text()):
            if relative:
                found = (document.parent / path).exists()
            elif "/" in path and path.split("/")[0] in top:
                found = (ROOT / path).exists()
            else:
                continue
            if not found:
                missing.append(f"{document.relative_to(ROOT)}: {path} does not exist")
    print("\n".join(missing) if missing else "every named path exists")
    return 1 if missing else 0


if __name__ == "__main__":
    sys.exit(main())
