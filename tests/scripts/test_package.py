"""Tests what scripts/package hands to the build, and what it leaves of the folder that it is given."""
import os
import pathlib
import shutil
import subprocess

import pytest

SCRIPT = pathlib.Path(__file__).resolve().parents[2] / "scripts/package"

#: In place of the tools that take minutes: the build keeps a list of the files that it is given.
TOOLS = {
    "ccache": "echo /nowhere",
    "lintian": "",
    "dpkg-buildpackage": 'find . -type f > "$SEEN"; cd ..; touch a_1.1_all.deb a-dbgsym_1.1_all.deb '
                         "halvo-system_1.1_all.buildinfo halvo-system_1.1_all.changes",
}


def program(path, text):
    path.parent.mkdir(exist_ok=True)
    path.write_text(f"#!/bin/sh\n{text}\n")
    path.chmod(0o755)


class Project:
    """A small one, with the real script."""

    def __init__(self, folder):
        self.folder = folder / "project"
        self.out = folder / "out"
        self._tools = folder / "tools"
        self._seen = folder / "seen"
        (self.folder / "debian").mkdir(parents=True)
        (self.folder / "debian/control").write_text("Source: halvo-system\n\nPackage: a\n")
        program(self.folder / "scripts/install-deps", "")
        shutil.copy(SCRIPT, self.folder / "scripts/package")
        for name, text in TOOLS.items():
            program(self._tools / name, text)
        self.git("init", "-q")

    def git(self, *arguments):
        subprocess.run(["git", "-c", "user.name=n", "-c", "user.email=e", *arguments],
                       cwd=self.folder, check=True, stdout=subprocess.DEVNULL)

    def package(self):
        """Builds into the folder; returns the files that the build has seen."""
        subprocess.run([self.folder / "scripts/package", self.out], check=True,
                       stdout=subprocess.DEVNULL,
                       env={**os.environ, "PATH": f"{self._tools}:{os.environ['PATH']}",
                            "SEEN": str(self._seen)})
        return sorted(self._seen.read_text().split())


@pytest.fixture
def project(tmp_path):
    return Project(tmp_path)


def test_only_former_packages_are_removed(project):
    for folder in ("source", "b"):
        (project.out / folder).mkdir(parents=True)
    for name in ("a_1.0_all.deb", "a-dbgsym_1.0_all.deb", "halvo-system_1.0_all.changes",
                 "halvo-system_1.0_all.buildinfo", "ab_1.0_all.deb", "other.changes", "source/own"):
        (project.out / name).touch()
    project.package()
    assert sorted(str(path.relative_to(project.out)) for path in project.out.rglob("*")) == [
        "a-dbgsym_1.1_all.deb", "a_1.1_all.deb", "ab_1.0_all.deb", "b",
        "halvo-system_1.1_all.buildinfo", "halvo-system_1.1_all.changes", "other.changes",
        "source", "source/own"]


def test_a_file_that_is_removed_but_not_committed_is_left_out(project):
    (project.folder / "z").touch()
    project.git("add", ".")
    project.git("commit", "-qm", "a: b")
    (project.folder / "z").unlink()
    (project.folder / "new").touch()
    assert project.package() == [
        "./debian/control", "./new", "./scripts/install-deps", "./scripts/package"]


def test_a_first_build_makes_its_folder(project):
    project.package()
    assert len(list(project.out.iterdir())) == 4
