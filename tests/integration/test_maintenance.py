"""Firmware upgrade, reboot, configuration backup and restore, and
_info.xml through the real executable and the host simulators of the
flasher and the backup scripts. The backup file format is checked against
the scrambler written out again here, independently of the gateway's code."""

import hashlib
import io
import os
import re
import subprocess
import tarfile
import time

import pytest
from pathlib import Path
from conftest import events

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat

HOST = "192.168.1.1"
REFERER = {"HTTP_HOST": HOST, "HTTP_REFERER": f"http://{HOST}/index.htm"}
BOUNDARY = "----quelmtest7MA4YWxk"
EXPORT_SEED, IMPORT_SEED = 0x3A5C71, 0x2B6D13


def scramble(data, register, feed_output):
    out = bytearray()
    for byte in data:
        key = ((register >> 5) ^ register) & 0xFF
        result = byte ^ key
        register = (register >> 8) + ((result if feed_output else byte) << 15)
        out.append(result)
    return bytes(out), register


def multipart(fields=(), files=()):
    body = b""
    for name, value in fields:
        body += (f'--{BOUNDARY}\r\nContent-Disposition: form-data; name="{name}"\r\n\r\n').encode() + value + b"\r\n"
    for name, filename, content in files:
        body += (f'--{BOUNDARY}\r\nContent-Disposition: form-data; name="{name}"; filename="{filename}"\r\n'
                 "Content-Type: application/octet-stream\r\n\r\n").encode() + content + b"\r\n"
    return body + f"--{BOUNDARY}--\r\n".encode()


CONTENT_TYPE = f"multipart/form-data; boundary={BOUNDARY}"


def home_page(root):
    """The referring page in the gateway's web tree, where the guarded CGIs
    (firmupgd.cgi, reboot.cgi) look for it."""
    (root / "www").mkdir(exist_ok=True)
    (root / "www/index.htm").write_text("home")


def start(bin_dir, env, argv0, length):
    """A multipart POST of length bytes whose body the caller writes."""
    home_page(Path(env["QUELM_ROOT"]))
    request_env = dict(env, REQUEST_METHOD="POST", CONTENT_TYPE=CONTENT_TYPE, CONTENT_LENGTH=str(length),
                       SCRIPT_NAME=f"/{argv0}", SCRIPT_FILENAME=f"/www/{argv0}", QUELM_REALM="web",
                       HTTP_HOST="192.168.1.1", HTTP_REFERER="http://192.168.1.1/index.htm")
    return subprocess.Popen([argv0], executable=bin_dir / "cgi-ssi", env=request_env, stdin=subprocess.PIPE,
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE)


def temporaries(root):
    return sorted(p.name for p in (root / "var/tmp").iterdir() if p.name.startswith(("cgic", "config.tar")))


@pytest.fixture(autouse=True)
def qmcfg_in_root(root, bin_dir):
    """The backup scripts call the gateway's configuration tool from the root."""
    (root / "bin").mkdir(exist_ok=True)
    (root / "bin" / "qmcfg").symlink_to(bin_dir / "qmcfg")


def redirect_target(answer):
    match = re.search(rb'document\.location\.replace\("([^"]*)"\)', answer.body)
    assert match, answer.raw
    return match.group(1).decode()


@pytest.fixture
def post(cgi, root):
    home_page(root)
    cgi.docroot.joinpath("index.htm").write_text("home")

    def run(argv0, body, extra=None, timeout=60):
        return cgi(page=argv0, argv0=argv0, method="POST", body=body, content_type=CONTENT_TYPE,
                   extra=dict(REFERER, **(extra or {})), timeout=timeout)
    return run


@pytest.mark.parametrize("mode", ["1", "midstream", "killed"])
def test_flasher_faults_give_the_same_answer(post, root, mode):
    image = os.urandom(1024 * 1024)
    started = time.monotonic()
    answer = post("firmware.cgi", multipart(files=[("sFirmwareFile", "fw.bin", image)]),
                  extra={"QUELM_FWBURN_PACE": "off", "QUELM_FWBURN_FAIL": mode}, timeout=30)
    assert time.monotonic() - started < 20
    # Only the end of the header block after the request loop's cookie.
    assert answer.returncode == 0 and re.fullmatch(rb"Set-Cookie: [^\r\n]*\r\n\r\n\r\n", answer.raw), answer.raw
    assert not (root / "var/quelm/platform/firmware.img").exists()
    assert (root / "var/tmp/fprogress").read_text().strip() == "-1"
    assert any(line.startswith("fwburn failed") for line in events(root))


def test_cut_upload_never_completes_an_image(bin_dir, env, root, log_file):
    """The client goes away mid-image: the flasher is stopped instead of
    being handed a short image as if it were whole."""
    body = multipart(files=[("sFirmwareFile", "fw.bin", os.urandom(4 * 1024 * 1024))])
    proc = start(bin_dir, dict(env, QUELM_FWBURN_PACE="off"), "firmware.cgi", len(body))
    out, err = proc.communicate(body[:len(body) // 2], timeout=30)
    assert out.endswith(b"\r\n\r\n") and "runtime error" not in err.decode(errors="replace")
    assert not (root / "var/quelm/platform/firmware.img").exists()
    assert (root / "var/tmp/fprogress").read_text().strip() == "-1"
    assert "fwburn stopped" in events(root)
    assert "incomplete image, flasher stopped" in log_file.read_text()


@pytest.mark.parametrize("managed, flashes", [("0", True), ("1", False)])
def test_firmupgd_honours_remote_management(post, qmcfg, root, managed, flashes):
    qmcfg("set", "Services_TR069", "UpgdManaged", managed)
    answer = post("firmupgd.cgi", multipart(files=[("sFirmwareFile", "fw.bin", b"IMAGE")]),
                  extra={"QUELM_FWBURN_PACE": "off"})
    assert (root / "var/quelm/platform/firmware.img").exists() == flashes
    assert (root / "var/tmp/fprogress").exists() == flashes
    if not flashes:
        assert redirect_target(answer).endswith("/index.htm")


@pytest.mark.parametrize("fields, expected", [
    ([], []),
    ([("iRebootOption", b"0"), ("iDelay", b"5")], ["reboot 5"]),
    ([("iRebootOption", b"2")], ["factory 2", "reboot 0"]),
    ([("iRebootOption", b"x")], []),
])
def test_reboot_options(post, root, fields, expected):
    answer = post("reboot.cgi", multipart(fields + [("sSuccessPage", b"done.htm")]))
    assert redirect_target(answer).endswith("/done.htm")
    assert [e for e in events(root) if e.split()[0] in ("reboot", "factory")] == expected


@pytest.mark.parametrize("content, shown", [
    ("57\n", b"57"), ("-3", b"-133"), ("abc", b"-128"), (None, b"-129"), ("+7", b"7"),
])
def test_firmware_progression(cgi, root, content, shown):
    progress = root / "var/tmp/fprogress"
    if content is not None:
        progress.write_text(content)
    cgi.docroot.joinpath("p.htm").write_text("[<!--#echo var=iFirmwareProgression -->]")
    assert cgi(page="p.htm").body == b"[" + shown + b"]"


INFO = (b'<?xml version="1.0" encoding="ISO-8859-1" standalone="yes" ?>\n<Vaylinfo>\n<version>1.0</version>\n'
        b"<lineinfo>\n<version>1.0</version>\n<UpstreamCurrRate>%d</UpstreamCurrRate>\n"
        b"<DownstreamCurrRate>%d</DownstreamCurrRate>\n</lineinfo>\n<usbinfo>\n<version>1.0</version>\n"
        b"<HardDriveConnected>%d</HardDriveConnected>\n</usbinfo>\n</Vaylinfo>\n")


@pytest.mark.parametrize("settings, up, down, disk", [
    ([], 1300, 24000, 0),
    ([("WANDSLInterfaceConfig", "Enable", "0"), ("LANEthernetInterface_2", "Enable", "1")], 1000000, 1000000, 0),
    ([("DOCSIS_Status", "Enable", "1"), ("DOCSIS_Management_Interfaces_3", "Speed", "400000"),
      ("DOCSIS_Management_Interfaces_4", "Speed", "40000")], 40000, 400000, 0),
    ([("Storage_Item_1_Status", "State", "ConnectedMounted")], 1300, 24000, 1),
])
def test_info_xml(cgi, qmcfg, settings, up, down, disk):
    qmcfg("set", "WANDSLLinkStatus_UpBitrates", "InterleavedChannel", "1000")
    qmcfg("set", "WANDSLLinkStatus_UpBitrates", "FastChannel", "300")
    qmcfg("set", "WANDSLLinkStatus_DownBitrates", "InterleavedChannel", "24000")
    qmcfg("set", "WANDSLLinkStatus_DownBitrates", "FastChannel", "0")
    if any(obj.startswith("Storage") for obj, _, _ in settings):
        qmcfg("create", "Storage_Item_1")
    for obj, prop, value in settings:
        qmcfg("set", obj, prop, value)
    answer = cgi(page="_info.xml", argv0="_info.xml")
    document = INFO % (up, down, disk)
    assert answer.raw.endswith(b"Cache-Control: no-cache,no-store\r\nPragma: no-cache\r\nConnection: close\r\n"
                               b"Content-Type: text/xml\r\nContent-Length: %d\r\n\r\n" % len(document) + document)


def scrambled_upload(archive):
    """A backup as a fresh process accepts it: the template's header, then
    the archive scrambled to follow it."""
    header = b"\xff\xff\xaa\xaa\xaa"
    _, register = scramble(header, IMPORT_SEED, feed_output=False)
    return header + scramble(archive, register, feed_output=True)[0]


def tar_of(*members):
    buffer = io.BytesIO()
    with tarfile.open(fileobj=buffer, mode="w", format=tarfile.USTAR_FORMAT) as tar:
        for info, data in members:
            tar.addfile(info, io.BytesIO(data) if data is not None else None)
    return buffer.getvalue()


def member(name, data=b"", kind=tarfile.REGTYPE, link=""):
    info = tarfile.TarInfo(name)
    info.type, info.linkname, info.size = kind, link, len(data) if kind == tarfile.REGTYPE else 0
    return info, data if kind == tarfile.REGTYPE else None


def test_export_import_round_trip(lighttpd, qmcfg, root, tmp_path):
    qmcfg("set", "Device", "Hostname", "before-backup")
    status, headers, backup = lighttpd.get("/export.cgi", data=b"sExportMode=archive",
                                           headers={"Content-Type": "application/x-www-form-urlencoded"})
    assert status == 200, backup
    assert headers["Content-disposition"] == "attachment; filename=router.bin"
    assert headers["Content-Type"] == "application/octet-stream"
    header, register = scramble(b"\xaa\xaa\xaa", EXPORT_SEED, feed_output=True)
    assert backup[:5] == b"\xff\xff" + header
    archive = scramble(backup[5:], register, feed_output=False)[0]
    with tarfile.open(fileobj=io.BytesIO(archive)) as tar:
        assert tar.getnames() == ["config.txt"]
        dump = tar.extractfile("config.txt").read().decode()
    assert "Device_Hostname=before-backup" in dump

    qmcfg("set", "Device", "Hostname", "changed")
    status, _, body = lighttpd.get("/import.cgi", data=multipart([("iDelay", b"3")], [("sImportFile", "router.bin", backup)]),
                                   headers={"Content-Type": CONTENT_TYPE})
    assert body == b"<script> window.top.window.onReceiveSuccess();</script>\r\n\r\n"
    assert qmcfg("get", "Device", "Hostname").stdout.strip() == "before-backup"
    assert "reboot 3" in events(root)
    assert temporaries(root) == []


@pytest.mark.parametrize("archive", [
    tar_of(member("/etc/passwd", b"x")),
    tar_of(member("../escape.txt", b"x")),
    tar_of(member("config.txt", b"Device_Hostname=evil\n"), member("sub/../../x", b"y")),
    tar_of(member("config.txt", kind=tarfile.SYMTYPE, link="/etc/shadow")),
    tar_of(member("config.txt", kind=tarfile.CHRTYPE)),
    tar_of(member("config.txt", b"Device_Hostname=ok\nNo_Such_Thing=1\n")),
], ids=["absolute", "dotdot", "late-dotdot", "symlink", "device", "bad-value"])
def test_hostile_restore_changes_nothing(post, qmcfg, root, archive):
    qmcfg("set", "Device", "Hostname", "kept")
    answer = post("import.cgi", multipart(files=[("sImportFile", "router.bin", scrambled_upload(archive))]))
    assert answer.body == b"<script> window.top.window.onReceiveError(20);</script>\r\n\r\n"
    assert qmcfg("get", "Device", "Hostname").stdout.strip() == "kept"
    assert not (root.parent / "escape.txt").exists() and not (root / "x").exists()
    assert not [e for e in events(root) if e.startswith("reboot")]
    assert temporaries(root) == []


def test_import_needs_the_binary_header_and_export_refuses_text(post, cgi, qmcfg, root):
    """A fresh process accepts a file whose header is its template and
    unscrambles the rest exactly as the scrambler written out here does."""
    archive = tar_of(member("config.txt", b"Device_Hostname=from-python\n"))
    answer = post("import.cgi", multipart([("iDelay", b"2")], [("sImportFile", "router.bin", scrambled_upload(archive))]))
    assert answer.body == b"<script> window.top.window.onReceiveSuccess();</script>\r\n\r\n"
    assert qmcfg("get", "Device", "Hostname").stdout.strip() == "from-python"
    assert "reboot 2" in events(root)
    answer = post("import.cgi", multipart(files=[("sImportFile", "conf.txt", b"Device_Hostname=x\r\n")]))
    assert answer.body == b"<script> window.top.window.onReceiveError(22);</script>\r\n\r\n"
    assert temporaries(root) == []
    answer = cgi(page="export.cgi", argv0="export.cgi", query="sExportMode=text&sErrorPage=err.htm")
    assert redirect_target(answer).endswith("/err.htm")
    assert (root / "var/tmp/cgierror").read_text() == "22"


def zombies_of(name):
    """Defunct children of processes whose command line contains name."""
    found = []
    for stat in Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = stat.read_text().rsplit(")", 1)[1].split()
            if fields[0] == "Z" and name.encode() in Path(f"/proc/{fields[1]}/cmdline").read_bytes():
                found.append(stat.parent.name)
        except (OSError, IndexError):
            continue
    return found


@pytest.mark.parametrize("mode", ["", "killed"])
def test_firmware_through_lighttpd(lighttpd, root, bin_dir, mode):
    switches = "QUELM_FWBURN_PACE=off\n" + (f"QUELM_FWBURN_FAIL={mode}\n" if mode else "")
    (root / "etc/quelm/fwburn.switches").write_text(switches)
    image = os.urandom(8 * 1024 * 1024)  # beyond the 2 MiB + 1 KiB form limit: streamed, never stored
    started = time.monotonic()
    status, _, body = lighttpd.get("/firmware.cgi", headers={"Content-Type": CONTENT_TYPE},
                                   data=multipart([("iExpert", b"1")], [("sFirmwareFile", "fw.bin", image)]))
    assert status == 200 and body == b"\r\n" and time.monotonic() - started < 20
    stored = root / "var/quelm/platform/firmware.img"
    if mode:
        assert not stored.exists()
    else:
        digest = hashlib.sha256(image).hexdigest()
        assert stored.read_bytes() == image and f"fwburn {len(image)} {digest}" in events(root)
        assert (root / "var/quelm/platform/firmware.img.sha256").read_text().strip() == digest
        assert (root / "var/tmp/fprogress").read_text().strip() == "100"
    assert not zombies_of(str(bin_dir / "cgi-ssi"))
    # The responder goes on serving.
    status, _, document = lighttpd.get("/_info.xml")
    assert status == 200 and b"<Vaylinfo>" in document
    assert not [p for p in (root / "var/tmp").iterdir() if p.name.startswith(("cgic", "lighttpd-upload"))]
