"""Lets the tests import the scripts that scripts/check runs."""
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts/lib"))
