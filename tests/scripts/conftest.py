"""Lets the tests import what scripts/check runs."""
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts/lib"))
