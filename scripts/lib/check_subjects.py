"""Checks the subjects of commits: "<component>: what changes", at most 72 characters.

Checks the commits that this branch has beyond its upstream or main, and always the last twenty
commits, because a fresh clone has no commits beyond. Merges are ignored; in a shallow clone the
available commits are checked.
"""
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
LAST = "-20"
MOST_CHARACTERS = 72
FORM = re.compile(r"[a-z][a-z0-9_]*: \S.*")


def complaint(subject):
    """The error of the subject, None if it is valid."""
    if len(subject) > MOST_CHARACTERS:
        return f"{len(subject)} characters, {MOST_CHARACTERS} are allowed"
    if not FORM.fullmatch(subject):
        return 'is not "<component>: what changes"'
    return None


def log(root, *arguments):
    """Pairs of (hash, subject); none if git knows no such commits."""
    run = subprocess.run(["git", "log", "--no-merges", "--format=%h %s", *arguments], cwd=root,
                         stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, check=False)
    return [line.partition(" ")[::2] for line in run.stdout.splitlines()] if not run.returncode else []


def subjects(root):
    found = dict(log(root, LAST, "HEAD"))
    for base in ("@{upstream}", "origin/main", "main"):
        found.update(log(root, f"{base}..HEAD"))
    return found


def main():
    bad = [f"{commit} {subject}: {complaint(subject)}"
           for commit, subject in subjects(ROOT).items() if complaint(subject)]
    print("\n".join(bad) if bad else "the subjects of commits have their form")
    return 1 if bad else 0


if __name__ == "__main__":
    sys.exit(main())
