"""The program's answers to its command line, and its exit status."""
import re
import signal
import subprocess

import pytest

from kit.memory import is_sanitized
from kit.paths import ROOT, program
from kit.service import command_line

OPTIONS = {
    "port": 'arg The service listener port. This is a Mandatory option.',
    "extport": 'arg The secure external service listener port. Must differ from "port". '
               'This is not a Mandatory option.',
    "configdir": 'arg Use configuration files from directory. Defaults to /var/lib/halvo '
                 '(default: /var/lib/halvo)',
    "id": 'arg The unique service id. This is a Mandatory option.',
    "ccsaddr": 'arg The address of the central conf store, if not set a central conf store is '
               'not used',
    "epgaddr": 'arg The address of the epg server. Defaults to localhost:5004 '
               '(default: localhost:5004)',
    "dispatcheraddr": 'arg The address of the dispatcher. Defaults to localhost:5000 '
                      '(default: localhost:5000)',
    "hendaddr": 'arg The address of the headend. Defaults to localhost:5001 '
                '(default: localhost:5001)',
    "logstdout": 'Log to stdout',
    "sys_mon": 'If this option is set the state monitor will also mDNS publish itself as a '
               'system monitor',
    "node_mon": 'If this option is set the state monitor will also mDNS publish itself as a '
                'node monitor',
    "statemon_services": 'arg Collection of services the system state monitor should subscribe '
                         'to. The format is <ip>:port1,port2,port3 (default: "")',
}


def run(tmp_path, *args, log_to_file=True):
    return subprocess.run(command_line(tmp_path, *args, log_to_file=log_to_file),
                          stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=20,
                          check=False)


def log_of(tmp_path):
    return (tmp_path / "log/halvo/halvo-system.log").read_text()


def help_words(text):
    """Option name to its line in the help, with single blanks whatever the wrapping."""
    entries = re.split(r"\n +(?:-\w, )?--", text)[1:]
    found = {}
    for entry in entries:
        # A group's heading follows the last option of the group before it.
        words = re.split(r"\n\n|\n \S+ options:", entry)[0].split()
        found[words[0]] = " ".join(words[1:])
    return found


def test_no_arguments_print_help_and_end_with_status_1(tmp_path):
    result = run(tmp_path)
    assert result.returncode == 1
    assert result.stderr == ""
    assert help_words(result.stdout) == OPTIONS
    assert log_of(tmp_path) == ""


def test_the_help_lists_the_options_in_order_and_by_group(tmp_path):
    text = run(tmp_path).stdout
    assert list(help_words(text)) == list(OPTIONS)
    assert re.search(r"^ service options:\n.*--port .*^ StateMonitoring options:\n.*--sys_mon ",
                     text, re.S | re.M)
    assert "-c, --configdir" in text
    assert re.findall(r"^ +-\w, ", text, re.M) == ["  -c, "]
    assert text.endswith("\n\n")


def test_help_is_an_unknown_option_that_is_logged(tmp_path):
    result = run(tmp_path, "--help")
    assert result.returncode == 1
    assert help_words(result.stdout) == OPTIONS
    line = log_of(tmp_path)
    assert re.fullmatch(r"\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\]\[error\]"
                        r"\[lum_service_initializer\.cpp:\d+\] .*help.*does not exist\n", line)


@pytest.mark.parametrize("args", [
    ("--port", "5005", "--no-such-thing"),
    ("--port",),
    ("--port", "5005", "-x"),
    ("--sys_mon=perhaps", "--port", "5005"),
])
def test_a_command_line_that_cannot_be_parsed_is_logged_and_answered_with_help(tmp_path, args):
    result = run(tmp_path, *args)
    assert result.returncode == 1
    assert help_words(result.stdout) == OPTIONS
    assert log_of(tmp_path).count("[error]") == 1


@pytest.mark.parametrize("args", [
    ("--id", "head-1"),
    ("--port", "5000", "--extport", "5000"),
    ("--port", "5000", "--extport", "05000"),
    ("--port", "08080", "--extport", "8080"),
])
def test_a_missing_or_doubled_port_prints_help_and_logs_nothing(tmp_path, args):
    result = run(tmp_path, *args)
    assert result.returncode == 1
    assert help_words(result.stdout) == OPTIONS
    assert log_of(tmp_path) == ""


def test_two_ports_of_which_one_is_no_number_end_the_process(tmp_path):
    result = run(tmp_path, "--port", "abc", "--extport", "1")
    assert result.returncode == -signal.SIGABRT
    assert "std::invalid_argument" in result.stderr
    assert result.stdout == ""


def test_a_port_that_is_no_number_ends_the_process(tmp_path):
    result = run(tmp_path, "--port", "abc")
    assert result.returncode == -signal.SIGABRT
    assert "std::invalid_argument" in result.stderr
    assert result.stdout == ""


@pytest.mark.parametrize("port", ["70000", "5005x"])
def test_an_address_that_cannot_be_bound_ends_the_process(tmp_path, port):
    result = run(tmp_path, "--port", port)
    assert result.returncode == -signal.SIGABRT
    assert f"Initialization Error: Unable to start gRPC server on address localhost:{port} - " in (
        result.stderr)
    assert result.stdout == ""


def test_a_log_directory_that_cannot_be_made_ends_the_process(tmp_path):
    (tmp_path / "log").mkdir()
    (tmp_path / "log/halvo").write_text("a file where the folder should be")
    result = run(tmp_path, "--port", "5005")
    assert result.returncode == -signal.SIGABRT
    assert "Failed opening file /var/log/halvo/halvo-system.log for writing" in result.stderr


@pytest.mark.parametrize("args", [("--logstdout",), ("--", "--logstdout"),
                                  ("--id", "--logstdout")])
def test_the_flag_for_standard_output_counts_wherever_it_stands(tmp_path, args):
    run(tmp_path, *args)
    assert not (tmp_path / "log/halvo").exists()


@pytest.mark.skipif(is_sanitized(), reason="a sanitizer reports whole paths")
def test_the_program_names_no_folder_of_its_build():
    assert str(ROOT).encode() not in program().read_bytes()
