"""Tests the reports of check_sizes.py on files and functions."""
from check_sizes import complaints


def function(lines):
    return "def name():\n" + "    pass\n" * (lines - 1)


def test_a_file_of_600_lines_is_fine_and_one_of_601_is_told():
    assert list(complaints("a.cpp", "\n" * 600)) == []
    assert list(complaints("a.cpp", "\n" * 601)) == ["a.cpp: 601 lines, 600 are allowed"]


def test_a_python_function_of_60_lines_is_fine_and_one_of_61_is_told():
    assert list(complaints("a.py", function(60))) == []
    assert list(complaints("a.py", "\n" + function(61))) == [
        "a.py:2: name has 61 lines, 60 are allowed"]


def test_a_program_without_an_ending_is_known_by_its_first_line():
    text = "#!/usr/bin/env -S python3 -u\n" + function(61)
    assert list(complaints("run", text)) == ["run:2: name has 61 lines, 60 are allowed"]
    assert list(complaints("run", "#!/bin/bash\nif true; then\n")) == []
