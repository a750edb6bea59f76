"""Faults through lighttpd on loopback: damaged state files, the responder
killed mid-request, a full disk under an upload, and clients that go away.
Each test is bounded in time and in requests."""

import os
import random
import signal
import socket
import subprocess
import threading
import time
import urllib.parse
from pathlib import Path

import pytest
from conftest import wait_for, write_token
from test_load import configuration
from test_maintenance import CONTENT_TYPE, multipart

HOST = {"Host": "192.168.1.1", "User-Agent": "faults"}
RESTART_SECONDS = 20


def responder_pid(server, socket_name="cgi.sock"):
    """The process that serves socket_name: its standard input is that
    listening socket (lighttpd numbers it: "<name>-0" for the one process)."""
    path = str(server.run_dir / socket_name)
    deadline = time.monotonic() + RESTART_SECONDS  # lighttpd may still be starting it
    while True:
        inodes = {line.split()[6] for line in Path("/proc/net/unix").read_text().splitlines()[1:]
                  if line.split()[-1] in (path, path + "-0")}
        for entry in Path("/proc").iterdir():
            try:
                if entry.name.isdigit() and os.readlink(entry / "fd/0")[8:-1] in inodes:
                    return int(entry.name)
            except OSError:
                continue
        if time.monotonic() > deadline:
            return None
        time.sleep(0.05)


def served_again(server):
    """Waits until generic.cgi answers again (lighttpd restarts a dead responder)."""
    assert wait_for(lambda: server.get("/generic.cgi?token=fault1&read=Device_Hostname")[0] == 200, RESTART_SECONDS), \
        "the responder was not restarted: " + server.error_log()[-2000:]


def post_generic(server, fields):
    data = urllib.parse.urlencode([("token", "fault1"), *fields]).encode()
    headers = {"Origin": server.url, "Content-Type": "application/x-www-form-urlencoded"}
    try:
        return server.get("/generic.cgi", data=data, headers=headers)
    except OSError as error:  # the responder died under the request
        return None, None, str(error).encode()


def test_damaged_session_token_and_error_files(lighttpd, qmcfg, root):
    """Empty, truncated, garbage and oversized state files: every request is
    answered, a damaged session is replaced by a fresh one."""
    qmcfg("set", "LANDevice_1_IPInterface_1", "IPAddress", "192.168.1.1")
    damaged = [b"", b"REMOTE_ADDR=127.0", bytes(range(256)) * 20, b"REMOTE_ADDR=127.0.0.1\n" * 4000]
    (lighttpd.docroot / "index.htm").write_text('<html><!--#echo var="iCgiError" --></html>')
    for content in damaged:
        (root / "var/quelm/session/web_Dmg001").write_bytes(content)
        status, headers, body = lighttpd.get("/index.htm", headers=dict(HOST, Cookie="QM_web_ID=Dmg001"))
        assert status == 200 and body.startswith(b"<html>")
        cookie = headers.get("Set-Cookie") or ""
        assert "QM_web_ID=" in cookie and "QM_web_ID=Dmg001" not in cookie, "no fresh session"

    for content in damaged + [b"600\n", b"-5\nall\n", b"600\n" + b"a" * 5000 + b"\n"]:
        path = root / "var/tmp/CGI_Token_Dmg002"
        path.write_bytes(content)
        os.utime(path, (time.time() + 600, time.time() + 600))
        status, _, body = lighttpd.get("/generic.cgi?token=Dmg002&read=Device_Hostname")
        assert status == 200 and body.startswith(b"{") and body.rstrip().endswith(b"}")
        if content in (b"", b"REMOTE_ADDR=127.0", b"600\n"):
            assert b'"error"' in body, "a token without rights granted a read"

    for content in damaged + [b"-2147483649", b"99999999999999999999"]:
        (root / "var/tmp/cgierror").write_bytes(content)
        status, _, body = lighttpd.get("/index.htm", headers=HOST)
        assert status == 200 and body.startswith(b"<html>") and body.endswith(b"</html>")


@pytest.fixture
def napping(root, install_plugins):
    """A function "nap" that marks its start and sleeps: a request that
    calls it after its writes is stopped between write and commit."""
    script = root / "lib/nap.sh"
    script.parent.mkdir(exist_ok=True)
    marker = root / "var/tmp/nap-started"
    script.write_text(f"#!/bin/sh\ntouch {marker}\nsleep 5\n")
    script.chmod(0o755)
    install_plugins('name="nap" methods="cgi" call="/lib/nap.sh"')
    return marker


def test_killed_between_write_and_commit(lighttpd, root, napping):
    """kill -9 before the commit: nothing saved, the database whole, the lock
    free, and the restarted responder commits."""
    write_token(root, name="fault1")
    before, _ = configuration(root)
    fields = [("write", "Device_Name:K1"), ("write", "Device_Domain:K1"), ("fct", "nap"),
              ("write", "Device_Hostname:K1")]
    request = threading.Thread(target=post_generic, args=(lighttpd, fields))
    request.start()
    assert wait_for(napping.exists, RESTART_SECONDS), "the request never reached its nap"
    os.kill(responder_pid(lighttpd), signal.SIGKILL)
    request.join(RESTART_SECONDS)
    saved, running = configuration(root)
    assert saved == before, "a write of the killed request was committed"
    assert running in (before, ("K1", "K1", before[2])), "the running configuration holds a torn value"

    served_again(lighttpd)
    status, _, body = post_generic(lighttpd, [("write", "Device_Hostname:after")])
    assert (status, body.strip()) == (200, b"{}"), "the lock of the killed responder was not released"
    # generic.cgi commits after its answer has gone out: wait for it.
    assert wait_for(lambda: configuration(root)[0][2] == "after", RESTART_SECONDS)


def test_killed_during_commit(lighttpd, root):
    """kill -9 at random moments: both configurations hold one request's three
    values (or the previous ones), never a mix."""
    write_token(root, name="fault1")
    rng = random.Random(20)
    seen = [configuration(root)[0]]
    for attempt in range(6):
        tag = f"C{attempt}"
        fields = [("writes", f"Device:Name={tag}|Domain={tag}"), ("write", f"Device_Hostname:{tag}")]
        request = threading.Thread(target=post_generic, args=(lighttpd, fields))
        pid = responder_pid(lighttpd)
        request.start()
        time.sleep(rng.uniform(0.0, 0.05))
        os.kill(pid, signal.SIGKILL)
        request.join(RESTART_SECONDS)
        seen.append((tag,) * 3)
        saved, running = configuration(root)
        assert saved in seen, f"the saved configuration is half-written: {saved}"
        assert running in seen or running[:2] == (tag, tag), f"the running configuration is torn: {running}"
        served_again(lighttpd)


def leftovers(*folders):
    """Upload temporaries: cgic* of the request layer, lighttpd's, the NAS's "~"."""
    return [p.name for folder in folders for p in folder.iterdir()
            if p.name.startswith(("cgic", "lighttpd-upload", "~"))]


def raw_request(server, method, path, headers, body=b""):
    """A socket with the request sent (body: what is sent of it)."""
    port = int(server.url.rsplit(":", 1)[1])
    conn = socket.create_connection(("127.0.0.1", port), timeout=20)
    lines = [f"{method} {path} HTTP/1.1", "Host: 127.0.0.1", *[f"{k}: {v}" for k, v in headers.items()], "", ""]
    conn.sendall("\r\n".join(lines).encode() + body)
    return conn


@pytest.mark.compat
def test_disk_full_during_upload(lighttpd, root):
    """A 1 MiB NAS upload onto a disk (a tmpfs) with 256 KiB of room: a
    clear failure, no temporary left on the disk, and the responder serves
    the next request."""
    disk = root / "var/mnt/usb1"
    disk.mkdir(parents=True)
    mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", "size=256k,mode=0755", "tmpfs", str(disk)],
                             capture_output=True, text=True)
    if mounted.returncode != 0:
        pytest.skip("no tmpfs mount here: " + mounted.stderr.strip())
    try:
        (disk / "Documents").mkdir()
        headers = {"Content-Type": CONTENT_TYPE, "Host": "gateway", "Referer": "http://gateway/index.htm"}
        # The upload is the responder's first request: its failure still
        # gets a header block of its own (no blank line before it).
        pid = responder_pid(lighttpd, "nas.sock")
        fields = [("iNasAddFile", b"1"), ("disk", b"usb1"), ("path", b"Documents")]
        body = multipart(fields, [("UploadFile", "big.bin", b"\x5a" * (1024 * 1024))])
        status, _, answer = lighttpd.get("/nas.cgi/upload/1/disk/usb1", data=body, headers=headers)
        assert status == 400 and b"OK" not in answer, (status, answer)
        assert "fread returns" in lighttpd.log_file.read_text(errors="replace"), "the failed write is not logged"
        assert leftovers(disk, root / "var/tmp") == [] and not (disk / "Documents/big.bin").exists()
        assert responder_pid(lighttpd, "nas.sock") == pid, "the responder died"
        small = multipart(fields, [("UploadFile", "small.bin", b"fits")])
        status, _, answer = lighttpd.get("/nas.cgi/upload/1/disk/usb1", data=small, headers=headers)
        assert status == 200 and (disk / "Documents/small.bin").read_bytes() == b"fits"
    finally:
        subprocess.run(["umount", "-l", str(disk)], check=False)


@pytest.mark.compat
def test_client_gone_mid_upload_and_mid_download(lighttpd, root):
    """A client that stops halfway through an upload, and one that closes
    while a large page is being sent: nothing is left behind, the responder
    lives on and answers the next request."""
    pid = responder_pid(lighttpd)
    body = multipart([], [("sImportFile", "router.bin", b"\0" * (1024 * 1024))])
    conn = raw_request(lighttpd, "POST", "/import.cgi", {"Content-Type": CONTENT_TYPE, "Content-Length": len(body)},
                       body[:256 * 1024])
    conn.close()
    # lighttpd may make its temporary after the close was sent: nothing may
    # be left once the folder has been empty and half a second has passed.
    assert wait_for(lambda: not leftovers(root / "var/tmp"), 10), leftovers(root / "var/tmp")
    time.sleep(0.5)
    assert wait_for(lambda: not leftovers(root / "var/tmp"), 10), leftovers(root / "var/tmp")

    page_pid = responder_pid(lighttpd, "ssi.sock")
    line = '<p><!--#echo var="DATE_LOCAL" --> ' + "x" * 200 + "</p>\n"
    (lighttpd.docroot / "big.htm").write_text(line * 40000)  # about 10 MB rendered
    for _ in range(3):
        conn = raw_request(lighttpd, "GET", "/big.htm", HOST)
        conn.recv(65536)
        conn.close()
    status, _, _ = lighttpd.get("/big.htm", headers=HOST)
    assert status == 200
    assert responder_pid(lighttpd) == pid and responder_pid(lighttpd, "ssi.sock") == page_pid, \
        "a responder died under a client that went away"
