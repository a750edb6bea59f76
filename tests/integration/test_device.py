"""Device functions through generic.cgi and "fct=" pages: answers, background
diagnostics, refused requests, the lock, and the root's tool simulators."""

import fcntl
import os
import re
import signal
import subprocess
import time
from urllib.parse import urlencode

import pytest
from conftest import events, wait_for, write_token
from fcgi import Responder

# The legacy access policy (no Origin, maintenance without an admin session); test_policy.py has the default.
pytestmark = pytest.mark.compat

FORM = "application/x-www-form-urlencoded"
TOKEN = "dev123"
ERROR = ', "error" : "CGI(1) error for symbol \\u003C{}\\u003E"'


@pytest.fixture
def device(cgi, root):
    """fct(name_and_argument) answers generic.cgi's body as text;
    fct.expect(call, value, failed) asserts the whole answer of one call."""
    path = write_token(root, TOKEN)

    def fct(*calls, extra=None, remote="127.0.0.1"):
        body = urlencode([("token", TOKEN)] + [("fct", c) for c in calls]).encode()
        answer = cgi(page="generic.cgi", method="POST", body=body, content_type=FORM,
                     extra=dict(extra or {}, REMOTE_ADDR=remote))
        return answer.body.decode()

    def expect(call, value, failed=False, **kwargs):
        assert fct(call, **kwargs) == answer(call.split(":")[0], value, failed), call
    fct.token, fct.expect = path, expect
    return fct


def answer(name, value, failed=False):
    return "{" + f'"{name}" : {value}' + (ERROR.format(name) if failed else "") + "}\n"


@pytest.fixture
def page(cgi):
    """Renders a page of "fct=" echoes separated by "|"."""
    def render(*calls, remote="127.0.0.1"):
        (cgi.docroot / "d.htm").write_text("|".join(f'<!--#echo var="fct={c}" -->' for c in calls))
        return cgi(page="d.htm", extra={"REMOTE_ADDR": remote}).body.decode().split("|")
    return render


def test_simple_functions_answer_and_fail_as_designed(device, root, qmcfg):
    qmcfg("set", "Device", "Hostname", "box-42")
    progress = root / "var/tmp/fprogress"
    before = time.time()
    seconds = re.fullmatch(r'\{"date" : "(\d+)"\}\n', device("date"))
    assert seconds and before - 1 <= int(seconds.group(1)) <= time.time() + 1
    for call, *expected in [("date:%Y", f'"{time.strftime("%Y")}"'), ("shadow:Device_Hostname", '"******"'),
                            ("shadow:NoUnderscore", '""'), ("get_check_passwordOverride:override", '"ok"'),
                            ("get_check_passwordOverride:overrid", '"ko"'), ("wifi_wps_pin_generate", '"12345670"'),
                            ("trigger_channel_selection:nosuchif0", '"FAILED"', True)]:
        device.expect(call, *expected)
    # compat: the stored error follows the empty string (generic.cgi has
    # just cleared it; a page shows it once, see below).
    assert device("cgierror") == '{"cgierror" : ""0}\n'
    # Negative progress codes leave the 0..100 range; text is bad content.
    for text, *expected in (("-1", "-131"), ("57\n", "57"), ("abc", "0", True)):
        progress.write_text(text)
        device.expect("firmwareFlashProgression", *expected)
    device.expect("startFTPfwburn", '""')
    assert progress.read_text() == "100\n"  # the simulated writer's report
    (root / "bin/gp_upgrade").write_text("#!/bin/sh\nexit 3\n")
    device.expect("startFTPfwburn", '""', True)


def test_client_log_and_key_functions(device, root, qmcfg):
    # The whole address field: 192.168.1.1 must not take 192.168.1.10's line.
    device.expect("get_mac_addr_by_arp", '"00:1a:2b:3c:4d:01"', remote="192.168.1.1")
    device.expect("get_mac_addr_by_arp", '"a4:5e:60:d1:22:10"', remote="192.168.1.10")
    device.expect("get_mac_addr_by_arp", '"ko"', True, remote="192.168.1.")

    logs = device("logread")
    assert logs.startswith('{"logread" : "Jan  1 00:00:01 gateway syslog.info') and "kernel" not in logs
    assert logs.count("|") == 3 and logs.endswith('|"}\n')

    device.expect("factory_reset_wep_password", '"SUCCESS"')
    device.expect("factory_reset_wpa_password", '"SUCCESS"')
    default_key = subprocess.run([root / "bin/pzinfo", "wepkey"], capture_output=True, text=True).stdout.strip()
    assert qmcfg("get", "WLANInterface_1_Config", "WEPKey1").stdout.strip() == default_key.encode().hex().upper()
    assert qmcfg("get", "WLANInterface_1_Config", "WPADefaultKey").stdout.strip() == default_key

    # Request text reaches the answer as JSON string content only.
    vars_answer = device("http_vars", extra={"HTTP_USER_AGENT": 'x"};alert(1)//\\'})
    assert 'UserAgent:"x\\"};alert(1)//\\\\"' in vars_answer
    assert vars_answer.startswith('{"http_vars" : { ServerName:"", ServerName:"", GatewayInterface:"CGI/1.1"')


def test_reboot_reset_and_disconnect_act_after_the_answer(device, root):
    assert device("reboot", "factoryReset") == '{"reboot" : "", "factoryReset" : ""}\n'
    assert events(root)[-2:] == ["reboot 0", "factory-reset "]
    device.expect("clear_logs", '"SUCCESS"')
    assert wait_for(lambda: "syslog restart" in events(root))
    device.expect("remove_dhclient_leases:eth0", "")  # one interface's leases
    assert (root / "var/etc/config/dhclient.leases").read_text() == (
        'lease {\n  interface "eth1.100";\n  fixed-address 198.51.100.42;\n'
        '  option routers 198.51.100.1;\n  renew 4 2026/11/26 11:00:00;\n}\n')
    # Without a session there is nothing to end; the token goes anyway.
    device.expect("disconnect_session", '"ERROR"', True)
    assert not device.token.exists()


def test_functions_called_from_a_page(page, root):
    (root / "var/tmp/fprogress").write_text("-1")
    (root / "var/tmp/cgierror").write_text("7")
    parts = page("cgierror", "cgierror", "date:%Y", "ping:127.0.0.1", "firmwareFlashProgression", "get_mac_addr_by_arp",
                 "get_check_passwordOverride:override", "diag_ping", remote="192.168.1.10")
    assert parts == ['""7', '""0', f'"{time.strftime("%Y")}"', "", "-131", '"a4:5e:60:d1:22:10"', '"ok"',
                     '"Invalid Requests"']
    assert not any(e.startswith("ping") for e in events(root))  # a page's "ping" runs nothing


def show_until_finished(device, name, pid, limit=10):
    """SHOW answers until "FINISHED"; returns them without it."""
    seen = []
    deadline = time.monotonic() + limit
    while time.monotonic() < deadline:
        body = device(f"{name}:SHOW|{pid}")
        value = re.fullmatch(r'\{"' + name + r'" : "(.*)"\}\n', body).group(1)
        if value == "FINISHED":
            return seen
        seen.append(value)
        time.sleep(0.1)
    raise AssertionError(f"{name} {pid} never finished: {seen[-1:]}")


def started_pid(body, name):
    match = re.fullmatch(r'\{"' + name + r'" : "(\d+)"\}\n', body)
    assert match, body
    return match.group(1)


def test_diagnostics_start_show_finish_and_stop(device, root):
    # Every request is its own responder process: START, SHOW and STOP may
    # each come to another one.
    pid = started_pid(device("diag_ping:START|127.0.0.1|56|3"), "diag_ping")
    seen = show_until_finished(device, "diag_ping", pid)
    assert "3 packets transmitted, 3 packets received" in seen[-1]
    assert seen[-1].startswith("PING 127.0.0.1 (127.0.0.1): 56 data bytes|64 bytes from 127.0.0.1: seq=0")
    assert not (root / f"tmp/diag_ping_{pid}").exists()  # delivered once, then gone

    pid = started_pid(device("diag_traceroute:START|localhost|5"), "diag_traceroute")
    assert "5 hops max" in show_until_finished(device, "diag_traceroute", pid)[-1]
    pid = started_pid(device("diag_nslookup:START|example.com"), "diag_nslookup")
    assert "can't resolve 'example.com'" in show_until_finished(device, "diag_nslookup", pid)[-1]

    pid = started_pid(device("diag_ping:START|localhost|56|100"), "diag_ping")
    time.sleep(0.3)
    assert "seq=0" in device(f"diag_ping:SHOW|{pid}")  # output so far while it runs
    device.expect(f"diag_traceroute:STOP|{pid}", '"SUCCESS"')
    assert os.path.exists(f"/proc/{pid}")  # another handler's test is not stopped
    device.expect(f"diag_ping:STOP|{pid}", '"SUCCESS"')
    assert wait_for(lambda: not os.path.exists(f"/proc/{pid}"))  # ended and reaped
    device.expect(f"diag_ping:SHOW|{pid}", '"FINISHED"')

    # Orders: none, unknown, lower case; traceroute's bad order answers 0.
    device.expect("diag_ping", '"Invalid Requests"', True)
    device.expect("diag_ping:show|1", '"Invalid Request Order"', True)
    device.expect("diag_nslookup:Start", '"Invalid Request"', True)
    device.expect("diag_traceroute:start", '"Invalid Request"')


def test_refused_hosts_and_ids_reach_no_tool(device, root, tmp_path):
    for host in ("-f", "-i 0.0001", ";id", "$(id)", "127.0.0.1 -f", ""):
        device.expect(f"ping:{host}", '""', True)
        device.expect(f"diag_ping:START|{host}|56|3", '"Invalid Requests"', True)
        device.expect(f"diag_nslookup:START|{host}", '"Invalid Requests"', True)
    device.expect("diag_ping:START|127.0.0.1|-f|3", '"Invalid Requests"', True)
    device.expect("diag_traceroute:START|127.0.0.1|1 -n", '"Invalid Requests"', True)
    assert events(root) == []  # no tool was started

    # A foreign process, even one with an output file planted under the
    # prefix, is neither stopped nor read while it runs.
    sleeper = subprocess.Popen(["sleep", "30"])
    try:
        planted = root / f"tmp/diag_ping_{sleeper.pid}"
        planted.write_text("secret\n")
        for pid in (str(sleeper.pid), "../1", f"{sleeper.pid}/../1", "1", "0", "-1", "abc", "00001"):
            device.expect(f"diag_ping:STOP|{pid}", '"SUCCESS"')
        assert sleeper.poll() is None
        for pid in ("../1", "1", "abc", "1;id"):
            device.expect(f"diag_ping:SHOW|{pid}", '"FINISHED"')
    finally:
        sleeper.kill()
        sleeper.wait()


def test_at_most_eight_diagnostics_at_once(device):
    pids = [started_pid(device("diag_ping:START|127.0.0.1|56|200"), "diag_ping") for _ in range(8)]
    try:
        device.expect("diag_nslookup:START|localhost", '"Too Many Requests"', True)
    finally:
        for pid in pids:
            device(f"diag_ping:STOP|{pid}")
    time.sleep(0.3)
    started_pid(device("diag_nslookup:START|localhost"), "diag_nslookup")


def test_lock_flag_is_taken_on_the_cgi_path_only(device, page, root):
    wait = {"QUELM_LOCK_WAIT_MS": "400"}

    def timed(run):
        start = time.monotonic()
        run()
        return time.monotonic() - start

    free = min(timed(lambda: device("get_check_passwordOverride:x", extra=wait)) for _ in range(3))
    with open(root / "var/quelm/config/config.lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        assert timed(lambda: device("date", extra=wait)) - free < 0.3  # flag 0
        assert timed(lambda: device("get_check_passwordOverride:x", extra=wait)) - free >= 0.35  # flag 1
        assert timed(lambda: page("get_check_passwordOverride:x")) - free < 0.3  # pages ignore the flag


def test_wps_push_never_blocks_on_the_pairing_fifo(device, root):
    fifo = root / "var/quelm/wifi.d/pairingd_fifo"
    device.expect("wifi_wps_push", '"FAILED"', True)  # no pipe
    os.mkfifo(fifo)
    start = time.monotonic()
    device.expect("wifi_wps_push", '"FAILED"', True)  # no reader
    assert time.monotonic() - start < 2
    reader = os.open(fifo, os.O_RDONLY | os.O_NONBLOCK)
    try:
        device.expect("wifi_wps_push", '"SUCCESS"')
        assert os.read(reader, 100) == b"PAIRINGD_WIFI_WPS_START\n"
    finally:
        os.close(reader)


def test_simulators_record_but_never_act(device, root, tmp_path):
    # A process named hostapd survives the channel reselection's killall.
    decoy = tmp_path / "hostapd"
    decoy.symlink_to("/bin/sleep")
    hostapd = subprocess.Popen([decoy, "30"])
    try:
        device.expect("trigger_channel_selection:lo", '"SUCCESS"')
        assert hostapd.poll() is None
    finally:
        hostapd.send_signal(signal.SIGKILL)
        hostapd.wait()
    assert events(root)[-2:] == ["iwconfig lo channel 0", "killall -9 hostapd"]
    # Anything but loopback is answered with the tool's own error.
    device.expect("ping:192.0.2.1", '"ping: bad address \'192.0.2.1\'\\u000a"')
    # A runaway tool's output is cut with a marker.
    (root / "bin/ping").write_text('#!/bin/sh\nyes "a\\"b" | head -c 200000\n')
    flood = device("ping:127.0.0.1")
    assert flood.endswith('a\\"b\\u000a[output truncated]\\u000a"}\n')
    assert flood.count('a\\"b') == 64 * 1024 // len('a"b\n')  # exactly the 64 KiB kept


def test_background_tests_leave_no_child_in_a_long_lived_responder(bin_dir, env, root, device, tmp_path):
    """A FastCGI responder serves many requests: a test it started must not
    stay its child (no zombie), and later commands still get their status.
    The request parameters carry no PATH or root: both were pinned at start."""
    with Responder(bin_dir / "cgi-ssi", "ssi", env, tmp_path / "fcgi.sock") as running:
        def fct(call):
            body = urlencode([("token", TOKEN), ("fct", call)]).encode()
            params = {"SCRIPT_FILENAME": "/www/generic.cgi", "REQUEST_METHOD": "POST", "CONTENT_TYPE": FORM,
                      "CONTENT_LENGTH": str(len(body)), "QUELM_REALM": "web", "REMOTE_ADDR": "127.0.0.1"}
            return running.request(params, body)[0].partition(b"\r\n\r\n")[2].decode()

        pid = started_pid(fct("diag_ping:START|127.0.0.1|56|2"), "diag_ping")
        assert "2 packets transmitted" in show_until_finished(fct, "diag_ping", pid)[-1]
        assert fct("clear_logs") == answer("clear_logs", '"SUCCESS"')
        assert fct("startFTPfwburn") == answer("startFTPfwburn", '""')  # status 0 still seen as 0
        time.sleep(0.3)
        children = subprocess.run(["ps", "--ppid", str(running.proc.pid), "-o", "pid=,stat="],
                                  capture_output=True, text=True).stdout
        assert children.strip() == ""
