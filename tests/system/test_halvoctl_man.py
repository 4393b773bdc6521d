"""The manual pages of the operator's tool have all commands and options, and no others."""
import re
import shutil
import subprocess

import pytest
from kit.ctl import command, environment
from kit.paths import ROOT

PAGES = sorted((ROOT / "tools/halvoctl/man").glob("*.1"))


def help_of(words):
    return subprocess.run(command(*words, "--help"), capture_output=True, text=True, check=True,
                          env=environment()).stdout


def options_of(text):
    """All spellings of the options, without that of the help."""
    spellings = re.findall(r"^  (-[^ ]+)", text, re.M)
    return {each for line in spellings for each in line.split(",")} - {"-h", "--help"}


def helped(words=()):
    """Command to its options, for all commands below the words; the whole tool is ""."""
    text = help_of(words)
    found = {" ".join(words): options_of(text)}
    for name in re.findall(r"^  ([a-z_]+) ", text.partition("Subcommands:")[2], re.M):
        found.update(helped((*words, name)))
    return found


def plain(line):
    """The text of a line of a page without fonts and escapes."""
    return re.sub(r"\\f[BIRP]", "", line).replace("\\-", "-")


def documented():
    """The same from the pages."""
    found = {}
    for page in PAGES:
        name = None
        for line in page.read_text().splitlines():
            heading = re.match(r"\.S[HS] (.*)", line)
            if heading and plain(heading[1]) == "OPTIONS":
                name = ""
            elif line.startswith(".SS"):
                name = re.match(r"([a-z]+( (?!bash)[a-z]+)*)", plain(heading[1]))[1]
            elif heading:
                name = None
            if name is not None and not (page.stem == "halvoctl" and name == "conf"):
                spelled = re.match(r"-[^|]*", plain(line)) if line.startswith("\\fB\\-") else None
                words = spelled[0].replace(",", " ").split() if spelled else []
                found.setdefault(name, set()).update(
                    word for word in words if re.fullmatch(r"--?[a-z][a-z-]*", word))
    found[""] -= {"-h", "--help"}
    return found


def test_the_pages_have_all_commands_and_options_of_the_help():
    known = {name: options for name, options in helped().items() if name not in ("conf", "log", "snmp")}
    pages = documented()
    missing = {name: sorted(options - pages.get(name, set())) for name, options in known.items()
               if name not in pages or options - pages[name]}
    unknown = {name: sorted(options - known.get(name, set())) for name, options in pages.items()
               if name not in known or options - known[name]}
    assert (missing, unknown) == ({}, {})


@pytest.mark.skipif(not shutil.which("groff"), reason="groff is not installed")
@pytest.mark.parametrize("page", PAGES, ids=lambda page: page.stem)
def test_a_page_is_formatted_without_warnings(page):
    run = subprocess.run(["groff", "-man", "-Tutf8", "-ww", "-z", str(page)], capture_output=True,
                         text=True, check=True)
    assert run.stderr == ""
