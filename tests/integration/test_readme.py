"""The README's walkthrough runs as printed: every code block marked
<!-- walkthrough --> is run, in order, in one shell against the script that
`make run` starts (on a free port, in its own run folder), and each answer
shown after "# =>" must be what the command prints. Also: a second start on
the same port is refused and leaves the running server's files alone."""

import os
import re
import shlex
import signal
import subprocess

import pytest

from conftest import BUILD, REPO, assert_no_sanitizer_report, free_port, wait_for_port

MARK = "<!-- walkthrough -->"
EXPECT = "# =>"
PRINTED_PORT = "127.0.0.1:8080"


def walkthrough_blocks():
    """The marked ```sh blocks of the README, as lists of lines."""
    text = (REPO / "README.md").read_text()
    blocks = re.findall(re.escape(MARK) + r"\n```sh\n(.*?)```", text, re.S)
    assert len(blocks) == text.count(MARK), "a walkthrough mark without a ```sh block after it"
    return [block.splitlines() for block in blocks]


def script_of(blocks):
    """One bash script: a command followed by "# =>" lines must print
    exactly those lines; any other command must succeed."""
    out = ["set -euo pipefail", "check() { if [ \"$2\" != \"$3\" ]; then",
           "  printf 'README command: %s\\nexpected: %q\\nprinted:  %q\\n' \"$1\" \"$3\" \"$2\" >&2; exit 1; fi; }"]
    commands = []  # (command, expected lines or None)
    for lines in blocks:
        joined = []
        for line in lines:
            if joined and joined[-1].endswith("\\"):
                joined[-1] = joined[-1][:-1] + " " + line.strip()
            else:
                joined.append(line)
        for line in joined:
            if line.startswith(EXPECT):
                assert commands, line
                expected = line[len(EXPECT):].removeprefix(" ")
                command, seen = commands[-1]
                commands[-1] = (command, (seen or []) + [expected])
            elif line.strip() and not line.lstrip().startswith("#"):
                commands.append((line, None))
    for command, expected in commands:
        if expected is None:
            out.append(command)
        else:
            out.append(f"check {shlex.quote(command)} \"$({command} | tr -d '\\r')\" "
                       f"{shlex.quote(chr(10).join(expected))}")
    return "\n".join(out) + "\n"




@pytest.fixture
def checkout(tmp_path):
    """A folder that looks like the top of the checkout, with the build
    under test as build/ and its own run/ folder."""
    top = tmp_path / "checkout"
    top.mkdir()
    for name in ("scripts", "www", "README.md"):
        (top / name).symlink_to(REPO / name)
    (top / "build").symlink_to(BUILD)
    return top


def test_walkthrough_runs_as_printed(checkout, tmp_path):
    port = free_port()
    run_dir = checkout / "run"
    env = {k: v for k, v in os.environ.items() if not k.startswith(("QUELM_", "HTTP_"))}
    env.update(QUELM_RUN_DIR=str(run_dir), CGISSI_BUILD=str(BUILD))
    output = tmp_path / "make-run.out"
    with open(output, "w") as sink:
        server = subprocess.Popen([checkout / "scripts" / "run.sh", str(port)], cwd=checkout, env=env,
                                  stdout=sink, stderr=subprocess.STDOUT, start_new_session=True)
    try:
        wait_for_port(port, server, output.read_text)
        pid_file = run_dir / "lighttpd.pid"
        config = (run_dir / "lighttpd.conf").read_text()

        # A second start on the busy port says so and writes nothing.
        again = subprocess.run([checkout / "scripts" / "run.sh", str(port)], cwd=checkout, env=env,
                               capture_output=True, text=True)
        assert again.returncode == 1
        assert "already" in again.stderr, again.stderr
        assert (run_dir / "lighttpd.conf").read_text() == config and pid_file.exists()

        script = script_of(walkthrough_blocks()).replace(PRINTED_PORT, f"127.0.0.1:{port}")
        done = subprocess.run(["bash", "-c", script], cwd=checkout, env=env, capture_output=True, text=True,
                              timeout=60)
        assert done.returncode == 0, done.stderr + done.stdout
        assert_no_sanitizer_report(done.stderr)

        # The names make run serves under survive the factory defaults.
        qmcfg = [BUILD / "bin" / "qmcfg"]
        root_env = dict(env, QUELM_ROOT=str(run_dir / "root"))
        subprocess.run(qmcfg + ["factory"], env=root_env, check=True)
        aliases = subprocess.run(qmcfg + ["get", "Device_Aliases"], env=root_env, capture_output=True, text=True)
        assert set(aliases.stdout.strip().split(",")) >= {"localhost", "127.0.0.1"}, aliases
    finally:
        os.killpg(server.pid, signal.SIGTERM)
        server.wait(timeout=10)
    log = (run_dir / "cgi-ssi.log").read_text()
    assert_no_sanitizer_report((run_dir / "lighttpd-error.log").read_text())
    # The log lines the walkthrough leads to: time and level first.
    line = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d (error|warning|notice|info|debug) \S+\[\d+\]: ")
    assert all(line.match(entry) for entry in log.splitlines()), log
    for message in ("info login.cgi", "login of user 'admin' from 127.0.0.1 accepted",
                    "login of user 'admin' from 127.0.0.1 refused", "wrote Device_Hostname", "changes committed",
                    "Warning: trying to delete an void object : PortMapping_10",
                    "warning generic.cgi", "request refused by its token from 127.0.0.1: You must provide a token"):
        assert message in log, log
