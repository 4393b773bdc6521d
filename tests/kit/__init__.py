"""Runs the built program and talks to it, for the system tests and the demo."""
