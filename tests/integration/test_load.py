"""Load through lighttpd on loopback: eight generic.cgi writers on the same
objects at once, and a session folder of 10,000 files. Each test is bounded
in time and in requests; under the sanitizer build the writers run shorter."""

import os
import sqlite3
import threading
import time
import urllib.parse

from conftest import BUILD, write_token

# The sanitizer build runs every request several times slower: the writers
# get a shorter run there, the same checks.
SANITIZED = "QUELM_SANITIZE:BOOL=ON" in (BUILD / "CMakeCache.txt").read_text()
WRITERS = 8
WRITE_SECONDS = 8 if SANITIZED else 30
REQUEST_TIMEOUT = 20
GROUP = ("Device_Name", "Device_Domain", "Device_Hostname")


def configuration(root):
    """The group's values in the saved and the running configuration, read
    from the database as another process sees it, after the database's own
    integrity check."""
    db = sqlite3.connect(f"file:{root}/var/quelm/config/config.db?mode=ro", uri=True, timeout=10)
    try:
        assert db.execute("PRAGMA integrity_check").fetchone() == ("ok",)
        marks = ",".join("?" * len(GROUP))
        tables = []
        for table in ("saved", "running"):
            rows = dict(db.execute(f"SELECT name, value FROM {table} WHERE name IN ({marks})", GROUP).fetchall())
            tables.append(tuple(rows.get(name) for name in GROUP))
        return tables
    finally:
        db.close()


def test_concurrent_writers_commit_whole_values(lighttpd, cgi, root):
    """Half the writers through lighttpd, half as CGI processes: the saved
    configuration always holds one request's tag in all three, none hangs."""
    write_token(root, name="load01")
    origin = {"Origin": lighttpd.url, "Content-Type": "application/x-www-form-urlencoded"}
    factory = configuration(root)[0]
    sent, answers, problems = set(), [], []
    deadline = time.monotonic() + WRITE_SECONDS

    def body(tag):
        fields = [("token", "load01"), ("writes", f"Device:Name={tag}|Domain={tag}"),
                  ("write", f"Device_Hostname:{tag}")]
        return urllib.parse.urlencode(fields)

    def writer(index):
        n = 0
        while time.monotonic() < deadline:
            tag = f"w{index}n{n}"
            sent.add(tag)
            started = time.monotonic()
            if index % 2 == 0:
                status, _, answer = lighttpd.get("/generic.cgi", data=body(tag).encode(), headers=origin)
            else:
                done = cgi(page="generic.cgi", argv0="generic.cgi", method="POST", body=body(tag).encode(),
                           content_type="application/x-www-form-urlencoded", timeout=REQUEST_TIMEOUT,
                           extra={"HTTP_HOST": "127.0.0.1", "HTTP_ORIGIN": "http://127.0.0.1"})
                status, answer = 200 if done.returncode == 0 else done.returncode, done.body
            answers.append((status, answer, time.monotonic() - started))
            n += 1

    def checker():
        while time.monotonic() < deadline:
            saved, _ = configuration(root)
            if saved != factory and not (len(set(saved)) == 1 and saved[0] in sent):
                problems.append(saved)
            time.sleep(0.05)

    threads = [threading.Thread(target=writer, args=(i,)) for i in range(WRITERS)]
    threads.append(threading.Thread(target=checker))
    for t in threads:
        t.start()
    for t in threads:
        t.join(WRITE_SECONDS + 3 * REQUEST_TIMEOUT)
    assert not any(t.is_alive() for t in threads), "a request hangs"
    assert problems == [], f"the saved configuration was half-written: {problems[:3]}"
    assert len(answers) >= WRITERS * 2
    assert {(status, answer.strip()) for status, answer, _ in answers} == {(200, b"{}")}
    assert max(seconds for _, _, seconds in answers) < REQUEST_TIMEOUT
    saved, running = configuration(root)
    assert saved == running and len(set(saved)) == 1 and saved[0] in sent


def session_file(folder, name, age, address):
    """A session of a client at address, idle for age seconds."""
    path = folder / f"web_{name}"
    path.write_text(f"REMOTE_ADDR={address}\nHTTP_USER_AGENT=load\nREALM=web\n")
    stamp = time.time() - age
    os.utime(path, (stamp, stamp))


def test_ten_thousand_session_files(lighttpd, qmcfg, root):
    """10,000 session files, all but ten idle beyond the lifetime: the next
    request answers in bounded time and the flush removes exactly the
    expired ones; a kept session is still recognised."""
    qmcfg("set", "Services_IADConfigurator", "SessionDelay", "600")
    qmcfg("set", "LANDevice_1_IPInterface_1", "IPAddress", "192.168.1.1")
    folder = root / "var/quelm/session"
    kept = []
    for i in range(10_000):
        name = f"L{i:05d}"
        if i % 1000 == 0:
            # Kept ones of other clients (each client keeps at most eight
            # anonymous sessions), the first of the loopback client.
            session_file(folder, name, 60, "127.0.0.1" if i == 0 else f"10.0.0.{i // 1000}")
            kept.append(name)
        else:
            session_file(folder, name, 3600, "127.0.0.1")
    (lighttpd.docroot / "index.htm").write_text("<html>ok</html>")
    headers = {"Host": "192.168.1.1", "User-Agent": "load"}

    started = time.monotonic()
    status, _, body = lighttpd.get("/index.htm", headers=headers)
    assert status == 200 and body == b"<html>ok</html>"
    assert time.monotonic() - started < REQUEST_TIMEOUT
    made = {f"L{i:05d}" for i in range(10_000)}  # not the session this request got
    left = sorted(p.name[4:] for p in folder.iterdir() if p.name.startswith("web_") and p.name[4:] in made)
    assert left == kept

    for _ in range(20):
        status, answer_headers, _ = lighttpd.get("/index.htm", headers=dict(headers, Cookie=f"QM_web_ID={kept[0]}"))
        assert status == 200
        cookie = answer_headers.get("Set-Cookie") or ""
        assert cookie.startswith(f"QM_web_ID={kept[0]};"), "a kept session was not recognised"
