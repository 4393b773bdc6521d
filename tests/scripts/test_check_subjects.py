"""Tests the reports of check_subjects.py on subjects of commits, and which commits it checks."""
import subprocess

import pytest
from check_subjects import complaint, subjects


@pytest.mark.parametrize("subject", [
    "docs: a", "hox_cpp_utils: regular expressions run on PCRE2", "ci: " + "x" * 68])
def test_a_subject_with_a_component_is_fine(subject):
    assert complaint(subject) is None


@pytest.mark.parametrize("subject", [
    "wip", "Docs: a", "docs:a", "docs : a", "docs: ", "archive, system_api: a", "(docs): a", ""])
def test_a_subject_without_its_form_is_told(subject):
    assert "what changes" in complaint(subject)


def test_a_subject_above_72_characters_is_told():
    assert complaint("ci: " + "x" * 69) == "73 characters, 72 are allowed"


class Repository:
    def __init__(self, folder):
        self.folder = folder

    def git(self, *arguments):
        subprocess.run(["git", "-c", "user.name=n", "-c", "user.email=e", *arguments],
                       cwd=self.folder, check=True, stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)

    def commit(self, *names):
        for name in names:
            self.git("commit", "--allow-empty", "-m", name)


@pytest.fixture
def repository(tmp_path):
    made = Repository(tmp_path / "made")
    made.folder.mkdir()
    made.git("init", "-b", "main")
    made.commit(*(f"c: {number}" for number in range(25)))
    return made


def seen(folder):
    return sorted(subjects(folder).values(), key=lambda text: int(text[3:]))


def test_a_fresh_clone_shows_its_last_twenty(repository, tmp_path):
    repository.git("clone", repository.folder, tmp_path / "clone")
    assert seen(tmp_path / "clone") == [f"c: {number}" for number in range(5, 25)]


def test_a_shallow_clone_shows_what_it_has(repository, tmp_path):
    repository.git("clone", "--depth=1", f"file://{repository.folder}", tmp_path / "clone")
    assert seen(tmp_path / "clone") == ["c: 24"]


def test_all_is_shown_that_a_branch_has_beyond_main(repository):
    repository.git("checkout", "-b", "work")
    repository.commit(*(f"c: {number}" for number in range(25, 55)))
    assert seen(repository.folder) == [f"c: {number}" for number in range(25, 55)]


def test_merges_are_left_out(repository):
    repository.git("checkout", "-b", "work", "HEAD~1")
    repository.commit("c: 99")
    repository.git("merge", "--no-edit", "-m", "Merge", "main")
    assert "Merge" not in subjects(repository.folder).values()
