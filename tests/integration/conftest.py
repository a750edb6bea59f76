"""Fixtures that run the real executables: qmcfg, cgi-ssi as a plain CGI
(one request), and cgi-ssi as a FastCGI responder behind lighttpd."""

import os
import shutil
import socket
import subprocess
import time
import urllib.error
import urllib.request
from dataclasses import dataclass, field
from pathlib import Path

import pytest
from fcgi import SANITIZER_MARKS

REPO = Path(__file__).resolve().parents[2]
BUILD = Path(os.environ.get("CGISSI_BUILD", REPO / "build"))


def assert_no_sanitizer_report(text):
    for mark in SANITIZER_MARKS:
        assert mark not in text, text


def write_token(root, name="abc123", rights="all", more=""):
    """A token file valid for ten minutes: lifetime, rights, further lines."""
    path = root / "var/tmp" / f"CGI_Token_{name}"
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(f"600\n{rights}\n{more}")
    os.utime(path, (time.time() + 600, time.time() + 600))
    return path


def events(root):
    """The host platform's event lines, without their time stamps."""
    path = root / "var/quelm/platform/events.log"
    return [line.split(" ", 1)[1] for line in path.read_text().splitlines()] if path.exists() else []


def make_user(qmcfg, index, name, password, services="web_admin"):
    """Creates User_<index>, enabled, with the given name, password and services."""
    qmcfg("create", f"User_{index}")
    for prop, value in [("Enable", "1"), ("User", "1"), ("Username", name), ("Password", password),
                        ("Services", services)]:
        qmcfg("set", f"User_{index}", prop, value)


def plugin_symbols(source, bin_dir, tmp_path, *cflags):
    """Compiles a plugin's source as strict C99 against include/; returns the
    symbols it needs and those the executable exports."""
    cc, nm = shutil.which("cc"), shutil.which("nm")
    if cc is None or nm is None:
        pytest.skip("no C toolchain")
    (tmp_path / "plugin.c").write_text(source)
    done = subprocess.run([cc, "-std=c99", "-Wall", "-Wextra", "-Werror", "-pedantic", "-c", "-I", REPO / "include",
                           *cflags, "-o", tmp_path / "plugin.o", tmp_path / "plugin.c"], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr

    def symbols(*args):
        return subprocess.run([nm, *args], capture_output=True, text=True, check=True).stdout.split()
    return set(symbols("--undefined-only", tmp_path / "plugin.o")[1::2]), \
        set(symbols("--dynamic", "--defined-only", bin_dir / "cgi-ssi")[2::3])


def wait_for(condition, seconds=5):
    """Whether condition() holds within seconds (asked once per look: a
    condition that held is not asked again, when it may have changed)."""
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() >= deadline:
            return False
        time.sleep(0.05)
    return True


def wait_for_port(port, proc, output, seconds=20):
    """Until something listens on 127.0.0.1:port; fails with output() when
    proc ends first or the time runs out."""
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=0.2):
                return
        except OSError:
            if proc.poll() is not None:
                raise AssertionError(output())
            time.sleep(0.05)
    raise AssertionError("no server came up on port %d: %s" % (port, output()))


@pytest.fixture(scope="session")
def bin_dir():
    path = BUILD / "bin"
    assert (path / "cgi-ssi").exists(), f"build first: {path}"
    return path


@pytest.fixture
def root(tmp_path, bin_dir):
    path = tmp_path / "root"
    path.mkdir()
    env = dict(os.environ, QUELM_ROOT=str(path))
    done = subprocess.run([bin_dir / "qmcfg", "init"], env=env, capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return path


@pytest.fixture
def log_file(tmp_path):
    return tmp_path / "cgi-ssi.log"


def pytest_configure(config):
    config.addinivalue_line("markers", "compat: run the executables with QUELM_COMPAT=1 (the legacy access policy)")


def compat_env(request):
    """QUELM_COMPAT=1 for tests marked compat (they assert the legacy policy)."""
    return {"QUELM_COMPAT": "1"} if request.node.get_closest_marker("compat") else {}


@pytest.fixture
def env(root, log_file, request):
    base = {k: v for k, v in os.environ.items() if not k.startswith(("HTTP_", "QUELM_"))}
    base.update(QUELM_ROOT=str(root), QUELM_LOG_FILE=str(log_file), **compat_env(request))
    return base


@pytest.fixture
def qmcfg(bin_dir, env):
    def run(*args, check=True, input=None):
        done = subprocess.run([bin_dir / "qmcfg", *map(str, args)], env=env, input=input,
                              capture_output=True, text=True)
        assert_no_sanitizer_report(done.stderr)
        if check:
            assert done.returncode == 0, done.stderr
        return done
    return run


@dataclass
class CgiResponse:
    returncode: int
    raw: bytes
    stderr: str
    headers: list = field(default_factory=list)
    body: bytes = b""

    def header(self, name):
        for key, value in self.headers:
            if key.lower() == name.lower():
                return value
        return None


def split_response(raw):
    """Splits CGI output at the first blank line into header pairs and body."""
    head, sep, body = raw.partition(b"\r\n\r\n")
    if not sep:
        return [], raw
    headers = []
    for line in head.split(b"\r\n"):
        if b":" in line:
            key, _, value = line.partition(b":")
            headers.append((key.decode(), value.strip().decode()))
    return headers, body


@pytest.fixture
def cgi(bin_dir, env, tmp_path):
    """Runs cgi-ssi once as a plain CGI and returns its response."""
    docroot = tmp_path / "www"
    docroot.mkdir(exist_ok=True)

    def run(page="index.htm", argv0="ssi", method="GET", query="", body=b"",
            content_type=None, content_length=None, realm="web", extra=None, unset=(), timeout=30):
        request_env = dict(env)
        request_env.update(
            REQUEST_METHOD=method,
            QUERY_STRING=query,
            DOCUMENT_ROOT=str(docroot),
            SCRIPT_NAME="/" + (page or ""),
            SCRIPT_FILENAME=f"{docroot}/{page}" if page is not None else "",
            REMOTE_ADDR="127.0.0.1",
            HTTP_HOST="127.0.0.1",
            GATEWAY_INTERFACE="CGI/1.1",
            SERVER_PROTOCOL="HTTP/1.1",
        )
        if page is None:
            del request_env["SCRIPT_FILENAME"]
        if realm is not None:
            request_env["QUELM_REALM"] = realm
        if content_type is not None:
            request_env["CONTENT_TYPE"] = content_type
        if content_length is None and body:
            content_length = len(body)
        if content_length is not None:
            request_env["CONTENT_LENGTH"] = str(content_length)
        request_env.update(extra or {})
        for name in unset:
            request_env.pop(name, None)
        done = subprocess.run([argv0], executable=bin_dir / "cgi-ssi", env=request_env,
                              input=body, capture_output=True, timeout=timeout)
        stderr = done.stderr.decode(errors="replace")
        assert_no_sanitizer_report(stderr)
        headers, payload = split_response(done.stdout)
        return CgiResponse(done.returncode, done.stdout, stderr, headers, payload)

    run.docroot = docroot
    return run


def free_port():
    with socket.socket() as s:
        s.bind(("127.0.0.1", 0))
        return s.getsockname()[1]


class Server:
    def __init__(self, url, run_dir, docroot, log_file):
        self.url = url
        self.run_dir = run_dir
        self.docroot = docroot
        self.log_file = log_file

    def get(self, path, data=None, headers=None, method=None):
        """Returns (status, headers, body) without following redirects."""
        request = urllib.request.Request(self.url + path, data=data, headers=headers or {}, method=method)
        try:
            with urllib.request.urlopen(request, timeout=30) as answer:
                return answer.status, answer.headers, answer.read()
        except urllib.error.HTTPError as error:
            return error.code, error.headers, error.read()

    def error_log(self):
        path = self.run_dir / "lighttpd-error.log"
        return path.read_text(errors="replace") if path.exists() else ""


@pytest.fixture
def lighttpd(bin_dir, root, log_file, tmp_path, request):
    """lighttpd on a free loopback port with cgi-ssi as its FastCGI back end."""
    run_dir = tmp_path / "run"
    docroot = tmp_path / "www"
    docroot.mkdir(exist_ok=True)
    port = free_port()
    conf_env = {k: v for k, v in os.environ.items() if k != "QUELM_COMPAT"}
    conf_env.update(QUELM_LOG_FILE=str(log_file), **compat_env(request))
    conf = subprocess.run([REPO / "scripts" / "lighttpd-conf.sh", root, str(port), bin_dir, docroot, run_dir],
                          env=conf_env, capture_output=True, text=True, check=True).stdout
    (run_dir / "lighttpd.conf").write_text(conf)
    proc = subprocess.Popen(["lighttpd", "-D", "-f", run_dir / "lighttpd.conf"],
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    wait_for_port(port, proc, lambda: proc.stdout.read().decode(errors="replace"))
    server = Server(f"http://127.0.0.1:{port}", run_dir, docroot, log_file)
    yield server
    proc.terminate()
    try:
        proc.wait(timeout=10)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait()
    assert_no_sanitizer_report(server.error_log())


PLUGIN_SOURCES = REPO / "tests" / "plugins"


@pytest.fixture
def install_plugins(root):
    """Installs the sample plugin and its command into the root's /lib and
    writes the registry: install(entries) with entries as XML attribute
    texts, one element each. "{lib}" and "{record}" in them stand for the
    sample library's name and the command's record file."""
    lib = root / "lib"
    lib.mkdir(exist_ok=True)
    shutil.copy(BUILD / "plugins" / "libsample_plugin.so", lib)
    shutil.copy(PLUGIN_SOURCES / "sample_command.sh", lib)
    record = root / "var/tmp/command-record"

    def install(*entries):
        registry = root / "etc/quelm/config.default/web.xml"
        items = "".join(f"  <entry {e.format(lib='libsample_plugin.so', record=record)}/>\n" for e in entries)
        registry.write_text(f"<web>\n{items}</web>\n")
        return record
    return install
