"""The NAS media service "nas.cgi" on a sample disk made by
scripts/sample-disk.sh: sending files (both forms), uploads, rename, delete,
thumbnails, folder listings, playlists, M3U and EXIF, each under the access
policy and confined to its disk."""

import base64
import hashlib
import os
import subprocess
import urllib.parse

import pytest
from conftest import REPO
from test_maintenance import CONTENT_TYPE, multipart

# Operations are sent as the design's pages send them (GETs without Origin):
# the legacy access policy. test_policy.py holds the default's same-origin
# rule for disk changes.
pytestmark = pytest.mark.compat

HOST = "gateway"  # the gateway's own host name: a local request
PNG = b"\x89PNG\r\n\x1a\n" + b"\x00\x00\x00\rIHDR" + bytes(17)


@pytest.fixture
def disk(root):
    subprocess.run([REPO / "scripts" / "sample-disk.sh", root], check=True)
    return root / "var/mnt/usb1"


@pytest.fixture
def nas(cgi, disk):
    """One request to nas.cgi: fields as a dict (or list of pairs) in the
    query; path_info and host as given."""
    def run(fields=(), path_info=None, host=HOST, extra=None, **kwargs):
        env = {"HTTP_HOST": host} if host is not None else {}
        if path_info is not None:
            env["PATH_INFO"] = path_info
        env.update(extra or {})
        answer = cgi(page="nas.cgi", argv0="nas.cgi", query=urllib.parse.urlencode(fields),
                     extra=env, unset=() if host is not None else ("HTTP_HOST",), **kwargs)
        # The request loop's session cookie comes first; the handler's own
        # output follows it.
        if answer.raw.startswith(b"Set-Cookie: "):
            answer.raw = answer.raw.split(b"\r\n", 1)[1]
        return answer

    def op(operation, /, **fields):
        """One operation ("GetFile" for iNasGetFile=1) on the disk usb1."""
        return run({f"iNas{operation}": "1", "disk": "usb1", **fields})
    run.op = op
    return run


def sendfile_path(path):
    """A path as the X-Sendfile2 header carries it: URL-encoded."""
    return "".join(c if c.isascii() and (c.isalnum() or c in "/.") else "%%%02x" % ord(c) for c in str(path))


def status(answer):
    value = answer.header("Status")
    return int(value.split()[0]) if value else 200


# ---- Sending ------------------------------------------------------------------

def test_send_form_headers_name_the_file_for_the_front_server(nas, disk):
    answer = nas.op("GetSong", file="Music/Album/01 Opening.mp3")
    assert answer.raw == (b'Content-disposition: inline; filename="01 Opening.mp3"\r\n'
                          b"X-Sendfile2: " + sendfile_path(disk / "Music/Album/01 Opening.mp3").encode() + b" 0-\r\n"
                          b"Content-type: audio/mpeg\r\n\r\n")
    answer = nas.op("GetFile", file="Documents/notes.txt")
    assert answer.raw.startswith(b'Content-disposition: attachment; filename="notes.txt"\r\n')
    assert answer.raw.endswith(b"Content-type: application/octet-stream\r\n\r\n")


def test_send_pathinfo_form_copies_or_hands_over(nas, disk):
    song = disk / "Music/Album/02 Closing.MP3"
    # Without a field PATH_INFO is a song; the extension is compared without case.
    answer = nas(path_info="/disk/usb1/file/Music/Album/02 Closing.MP3")
    head = (b'Content-disposition:inline; filename="02 Closing.MP3"\r\n'
            b"Content-Length: %d\r\nContent-type: audio/mpeg\r\n\r\n" % song.stat().st_size)
    assert answer.raw == head + song.read_bytes()
    # Behind lighttpd the front server sends the file: headers only.
    answer = nas(path_info="/disk/usb1/file/Music/Album/02 Closing.MP3", extra={"SERVER_NAME": "lighty"})
    handed = b"X-Sendfile: %s\r\nContent-Length" % sendfile_path(song).encode()
    assert answer.raw == head.replace(b"Content-Length", handed)
    # iNasGetFile with a PATH_INFO takes any extension.
    answer = nas({"iNasGetFile": "1"}, path_info="/disk/usb1/file/Documents/notes.txt")
    assert answer.body == (disk / "Documents/notes.txt").read_bytes()
    answer = nas(path_info="/disk/usb1/file/Documents/notes.txt")
    assert status(answer) == 400


@pytest.mark.parametrize("fields, path_info, code", [
    ({}, None, 400),                                                   # no field, no PATH_INFO: disk missing
    ({"iNasGetSong": "1", "disk": "usb1"}, None, 400),                 # file missing
    ({"iNasGetFile": "2", "disk": "usb1", "file": "x"}, None, None),   # a value other than 1 does nothing
    ({"iNasGetSong": "1", "disk": "usb1", "file": "Music/none.mp3"}, None, 404),
    ({"iNasGetFile": "1", "disk": "usb1", "file": "../../../etc/passwd"}, None, 404),
    ({"iNasGetFile": "1", "disk": "usb1", "file": "Music/../Documents/notes.txt"}, None, 404),  # within the disk
    ({"iNasGetFile": "1", "disk": "usb1", "file": "/etc/passwd"}, None, 404),
    ({"iNasGetFile": "1", "disk": "usb1/..", "file": "usb1/Documents/notes.txt"}, None, 404),
    ({"iNasGetFile": "1", "disk": "..", "file": "mnt/usb1/Documents/notes.txt"}, None, 404),
    ({}, "/disk/usb1/file/../../../../etc/x.mp3", 404),
])
def test_send_refusals(nas, fields, path_info, code):
    answer = nas(fields, path_info=path_info)
    if code is None:
        assert answer.raw == b""
    else:
        assert status(answer) == code and b"X-Sendfile" not in answer.raw and b"root:" not in answer.raw, answer.raw


def test_links_planted_on_the_disk_lead_nowhere(nas, disk, root):
    (root / "secret").write_text("secret")
    (disk / "escape").symlink_to(root / "secret")
    (disk / "Music/up").symlink_to(root / "var")
    (disk / "inside.mp3").symlink_to(disk / "Music/Interlude.mp3")
    for file in ["escape", "Music/up/mnt/usb1/Documents/notes.txt", "inside.mp3"]:
        answer = nas.op("GetFile", file=file)
        assert status(answer) == 404 and b"X-Sendfile" not in answer.raw, file
    # Nothing is written through a planted folder link either.
    answer = nas.op("AddThumb", path="Music/up", name="x", data=base64.b64encode(PNG))
    assert status(answer) == 404
    answer = nas.op("DeleteFile", path="Music/up", name="tmp")
    assert status(answer) == 404 and (root / "var/tmp").is_dir()
    # Deleting the link removes the link, not what it names.
    answer = nas.op("DeleteFile", path="", name="escape")
    assert status(answer) == 200 and not (disk / "escape").is_symlink() and (root / "secret").exists()
    (disk / "Music/link").symlink_to(root / "var/tmp")
    nas.op("DeleteFile", path="Music", name="link")
    assert (root / "var/tmp").is_dir()


# ---- Access policy ------------------------------------------------------------

def test_access_policy(nas, qmcfg):
    song = {"iNasGetSong": "1", "disk": "usb1", "file": "Music/Interlude.mp3"}
    # "local" (the default): the gateway's name in any case and with a port,
    # or an address of its LAN; not a public address.
    for host in ["GATEWAY:8080", "gateway.home", "192.168.1.77"]:
        assert b"X-Sendfile2" in nas(song, host=host).raw, host
    answer = nas(song, host="203.0.113.9")
    assert status(answer) == 500 and b"X-Sendfile" not in answer.raw
    # Each name of an alias list counts.
    qmcfg("set", "Device", "Aliases", "nas.home,Media.lan")
    assert b"X-Sendfile2" in nas(song, host="media.LAN").raw
    assert status(nas(song, host="media")) == 500
    qmcfg("set", "Services_NAS", "Disk", "all")
    assert b"X-Sendfile2" in nas(song, host="203.0.113.9").raw
    qmcfg("set", "Services_NAS", "Disk", "off")
    qmcfg("set", "Services_NAS", "Music", "off")
    assert status(nas(song)) == 500
    assert status(nas.op("GetMusicContent", path="")) == 403
    assert status(nas.op("DeleteFile", path="Music", name="Live.aac")) == 403
    qmcfg("set", "Services_NAS", "Pictures", "off")
    assert status(nas.op("GetExif", file="Pictures/camera.jpg")) == 403


# ---- Changing the disk --------------------------------------------------------

def upload(nas, path_info, fields, name, content):
    return nas(path_info=path_info, method="POST", body=multipart(fields, [("UploadFile", name, content)]),
               content_type=CONTENT_TYPE,
               extra={"HTTP_REFERER": f"http://{HOST}/index.htm"})


def test_upload_stores_the_file_inside_the_disk_only(nas, disk, root):
    data = os.urandom(300000)
    fields = [("iNasAddFile", b"1"), ("disk", b"usb1"), ("path", b"Documents")]
    answer = upload(nas, "/upload/1/disk/usb1", fields, "C:\\Users\\me\\report.bin", data)
    assert status(answer) == 200 and b"<BODY>OK</BODY>" in answer.body, answer.raw
    assert (disk / "Documents/report.bin").read_bytes() == data
    # An existing target is not replaced.
    answer = upload(nas, "/upload/1/disk/usb1", fields, "report.bin", b"other")
    assert status(answer) == 500 and (disk / "Documents/report.bin").read_bytes() == data
    for path, name in [(b"../../..", "evil.txt"), (b"/tmp", "evil.txt"), (b"Documents", "../../evil.txt"),
                       (b"Documents", "..")]:
        answer = upload(nas, "/upload/1/disk/usb1", [fields[0], fields[1], ("path", path)], name, b"x")
        assert status(answer) == 404, (path, name)
    assert not list(root.rglob("evil.txt"))
    # No temporary file stays behind, whatever happened.
    assert not [p for p in disk.iterdir() if p.name.startswith("~")]


def test_rename_and_delete_reply_with_the_listing(nas, disk, log_file):
    answer = nas.op("RenameFile", path="Music", name="Live.aac", newname="On stage.aac")
    assert b"<name>On stage.aac</name>" in answer.body and (disk / "Music/On stage.aac").exists()
    answer = nas.op("RenameFile", path="Music", name="Interlude.mp3", newname="On stage.aac")
    assert "File already exists" in log_file.read_text(errors="replace")
    assert (disk / "Music/Interlude.mp3").exists()
    for newname in ["../../../moved", "/tmp/moved", "..", "a/b"]:
        answer = nas.op("RenameFile", path="Music", name="Interlude.mp3", newname=newname)
        assert status(answer) == 404 and (disk / "Music/Interlude.mp3").exists(), newname
    answer = nas.op("DeleteFile", path="", name="Music")
    assert b"<name>Music</name>" not in answer.body and not (disk / "Music").exists()
    for path, name in [("", ".."), ("", "."), ("..", "usb1"), ("Documents/..", "")]:
        assert status(nas.op("DeleteFile", path=path, name=name)) in (400, 404)
    assert (disk / "Documents/notes.txt").exists()


def test_thumbnails_are_png_and_tied_to_path_and_size(nas, disk):
    picture = {"disk": "usb1", "file": "Pictures/camera.jpg"}
    answer = nas({"iNasGetThumb": "1", **picture})
    assert sendfile_path(disk / "Pictures/camera.jpg").encode() in answer.raw
    add = {"iNasAddThumb": "1", "disk": "usb1", "path": "Pictures", "name": "camera.jpg"}
    assert status(nas({**add, "data": base64.b64encode(b"GIF89a....")})) == 400
    assert status(nas({**add, "data": "not base64 !"})) == 400
    answer = nas({**add, "data": base64.b64encode(PNG)})
    assert status(answer) == 200, answer.raw
    size = (disk / "Pictures/camera.jpg").stat().st_size  # the name hashes the path and the size
    name = hashlib.md5(f"/var/mnt/usb1/Pictures/camera.jpg-{size}".encode()).hexdigest()
    thumb = disk / ".quelm" / f"{name}.png"
    assert thumb.read_bytes() == PNG
    assert oct((disk / ".quelm").stat().st_mode & 0o7777) == "0o1777"
    answer = nas({"iNasGetThumb": "1", **picture})
    assert f"X-Sendfile2: {sendfile_path(thumb)} 0-".encode() in answer.raw


# ---- Listings -------------------------------------------------------------------

def test_folder_listings(nas, disk):
    (disk / "Music/a&<b>\"'\x01.mp3").write_bytes(b"x")
    answer = nas.op("GetFolderContent", path="Music")
    assert answer.header("Content-type") == "text/xml"
    body = answer.body.decode()
    assert body.startswith('<?xml version="1.0" encoding="UTF-8" ?>\n<root>\n<folder>\n<disk>usb1</disk>\n'
                           "<path>Music</path>\n</folder>\n<folderset>\n")
    assert body.endswith("</folderset>\n</root>\n")
    assert "<item>\n<name>Album</name>\n<dir>1</dir>\n" in body
    assert "<item>\n<name>Interlude.mp3</name>\n<dir>0</dir>\n<size>%d</size>\n</item>\n" % (
        disk / "Music/Interlude.mp3").stat().st_size in body
    assert "<name>a&amp;&lt;b&gt;&quot;&apos;&#xFFFD;.mp3</name>" in body
    # The music listing: folders and ".mp3" only (any case), hidden entries never.
    (disk / "Music/Album/.hidden.mp3").write_bytes(b"x")
    body = nas.op("GetMusicContent", path="Music/Album").body.decode()
    assert "01 Opening.mp3" in body and "02 Closing.MP3" in body and ".hidden" not in body
    body = nas.op("GetMusicContent", path="Music").body.decode()
    assert "<name>Album</name>" in body and "Live.aac" not in body
    # The disk root, and nowhere above it.
    assert "<name>Documents</name>" in nas.op("GetFolderContent", path="").body.decode()
    for path in ["..", "../..", "Music/../../.."]:
        answer = nas.op("GetFolderContent", path=path)
        assert status(answer) == 404 and b"<folderset>" not in answer.body, path


# ---- Playlists --------------------------------------------------------------------

FAVOURITES = ["Music/Album/01 Opening.mp3", "Music/Interlude.mp3", "Music/Album/02 Closing.MP3"]


def playlist_paths(answer):
    body = answer.body.decode()
    assert body.startswith('<?xml version="1.0" encoding="UTF-8" ?>\n<root>\n<playlist>\n<disk>usb1</disk>\n')
    assert body.endswith("</playlistset>\n</root>\n")
    return [line[len("<path>"):-len("</path>")] for line in body.splitlines() if line.startswith("<path>")]


def test_playlist_xml_and_edits(nas, disk):
    assert playlist_paths(nas.op("GetPlaylist", name="Favourites")) == FAVOURITES
    assert status(nas.op("GetPlaylist", name="None")) == 404
    a, b, c = FAVOURITES

    def edit(operation, song, **more):
        return playlist_paths(nas.op(operation, name="Favourites", song=song, **more))
    # Each field's direction and count (wrapping and dropping: NasPlaylist.MovesWrapOnceThenDrop).
    assert edit("MoveDownPlaylistItem", a) == [b, a, c]
    assert edit("MoveUpPlaylistItem", c, nb="2") == [c, b, a]
    assert edit("AddPlaylistItem", "Interlude.mp3", path="Music") == [c, b, a, b]
    assert edit("DeletePlaylistItem", b) == [c, a, b]            # the first occurrence only
    assert edit("DeletePlaylistItem", "Music/none.mp3") == [c, a, b]
    assert (disk / ".playlists/Favourites.m3u").read_text() == f"{c}\n{a}\n{b}\n"
    assert not list((disk / ".playlists").glob("*.tmp"))


def test_playlist_create_rename_delete(nas, disk, root):
    lists = disk / ".playlists"
    assert b"<BODY>OK</BODY>" in nas.op("AddPlaylist", name="Party").body
    assert (lists / "Party.m3u").read_bytes() == b""
    nas.op("RenamePlaylist", name="Party", newname="Night")
    assert (lists / "Night.m3u").exists() and not (lists / "Party.m3u").exists()
    nas.op("RenamePlaylist", name="Night", newname="Favourites")
    assert (lists / "Night.m3u").exists()
    # A missing field: the OK page all the same.
    assert status(nas.op("DeletePlaylist")) == 200
    nas.op("DeletePlaylist", name="Night")
    assert not (lists / "Night.m3u").exists()
    for name in ["../../../../etc/evil", "../Music/x", ".."]:
        nas.op("AddPlaylist", name=name)
        nas.op("DeletePlaylist", name="../Music/Interlude.mp3"[:-4])
    assert not list(root.rglob("evil.m3u")) and not (disk / "Music/x.m3u").exists()
    assert (disk / "Music/Interlude.mp3").exists()


def test_playlist_rewrite_keeps_a_planted_link(nas, disk, root):
    (root / "target").write_text("keep\n")
    (disk / ".playlists/Favourites.m3u.tmp").symlink_to(root / "target")
    nas.op("DeletePlaylistItem", name="Favourites", song=FAVOURITES[0])
    assert (root / "target").read_text() == "keep\n"
    assert (disk / ".playlists/Favourites.m3u").read_text() == "".join(f + "\n" for f in FAVOURITES[1:])


def test_m3u_both_forms(nas, qmcfg):
    def play(form, host, **kwargs):
        return nas({f"iNasPlayPlaylist{form}": "1", "disk": "usb1", "name": "Favourites"}, host=host, **kwargs)
    answer = play("", "gateway:444")
    assert answer.raw.startswith(b'Content-disposition: attachment; filename="Favourites.m3u"\r\n'
                                 b"Content-type: audio/x-mpegurl\r\n\r\n")
    assert answer.body.decode() == (
        "#EXTM3U\r\n#EXTINF:-1,01 Opening.mp3\r\n"
        "http://gateway:8080/cgi-bin/nas.cgi?iNasGetSong=1&disk=usb1&file=Music%2fAlbum%2f01%20Opening%2emp3\r\n"
        "#EXTINF:-1,Interlude.mp3\r\n"
        "http://gateway:8080/cgi-bin/nas.cgi?iNasGetSong=1&disk=usb1&file=Music%2fInterlude%2emp3\r\n"
        "#EXTINF:-1,02 Closing.MP3\r\n"
        "http://gateway:8080/cgi-bin/nas.cgi?iNasGetSong=1&disk=usb1&file=Music%2fAlbum%2f02%20Closing%2eMP3\r\n")
    assert b"https://gateway/cgi-bin/nas.cgi?" in play("", "gateway", extra={"HTTPS": "on"}).body
    assert status(play("", None)) == 403
    # PATH_INFO form, local: the host as it came.
    answer = play("PI", "gateway:80")
    assert b"http://gateway:80/cgi-bin/nas.cgi/disk/usb1/file/Music/Album/01%20Opening.mp3\r\n" in answer.body
    # From outside: the remote port of the active WAN service for the pages.
    qmcfg("set", "Services_NAS", "Music", "all")
    answer = play("PI", "203.0.113.9:80")
    assert b"http://203.0.113.9:8080/cgi-bin/nas.cgi/disk/usb1/file/Music/Interlude.mp3\r\n" in answer.body
    # The first enabled service whose key begins "web" (an empty key counts).
    qmcfg("set", "WANConnectionDevice_1_Service_1", "Enable", "0")
    qmcfg("set", "WANConnectionDevice_1_Service_2", "UniqueKey", "")
    qmcfg("set", "WANConnectionDevice_1_Service_2", "Enable", "1")
    assert b"http://203.0.113.9:8081/cgi-bin/nas.cgi/" in play("PI", "203.0.113.9:80").body
    # None: the request ends without a word.
    qmcfg("set", "WANConnectionDevice_1_Service_2", "Enable", "0")
    assert play("PI", "203.0.113.9:80").raw == b""


def test_exif_of_the_sample_picture(nas, disk):
    answer = nas.op("GetExif", file="Pictures/camera.jpg")
    assert answer.header("Content-type") == "text/plain"
    assert answer.body.startswith(b'{"') and answer.body.endswith(b'", }\n')
    assert b'"Make":"Quelm", ' in answer.body and b'"Model":"QHG", ' in answer.body
    assert status(nas.op("GetExif", file="Documents/notes.txt")) == 404
    assert status(nas.op("GetExif", file="../usb1/Pictures/camera.jpg")) == 404


def test_playlist_symbols_in_pages(cgi, disk, qmcfg):
    (disk.parent / "usb2/.playlists").mkdir(parents=True)
    (disk.parent / "usb2/.playlists/Road.M3U").write_text("a\n\nb\n")
    (disk.parent / "usb2/.playlists/.hidden.m3u").write_text("a\n")
    (disk.parent / "usb2/.playlists/notes.txt").write_text("a\n")
    qmcfg("set", "Services_NAS", "Music", "all")
    cgi.docroot.joinpath("p.htm").write_text(
        '[<!--#echo var="sNasPlaylists" -->|<!--#echo var="sNasFullPlaylists" -->]')
    body = cgi(page="p.htm").body.decode()
    short, full = body[body.index("[") + 1:body.index("]")].split("|")
    assert sorted(short.split("\v")) == ["", "usb1\tFavourites", "usb2\tRoad"]
    assert sorted(full.split("\v")) == ["", "usb1\tFavourites\t3", "usb2\tRoad\t2"]


# ---- Through lighttpd ---------------------------------------------------------------

def curl(url, *args):
    done = subprocess.run(["curl", "-sS", "-D", "-", "-H", f"Host: {HOST}", *args, url],
                          capture_output=True, timeout=30)
    assert done.returncode == 0, done.stderr
    head, _, body = done.stdout.partition(b"\r\n\r\n")
    return head.decode(), body


def test_lighttpd_streams_the_file_named_by_the_responder(lighttpd, disk):
    data = os.urandom(1 << 20)
    (disk / "Documents/big file.bin").write_bytes(data)
    # lighttpd URL-decodes the path it is handed: "a%41" is not "aA".
    (disk / "Music/a%41.mp3").write_bytes(b"percent")
    (disk / "Music/aA.mp3").write_bytes(b"other")
    query, path_info = "/nas.cgi?iNasGetFile=1&disk=usb1&file=", "/nas.cgi/disk/usb1/file/Music/"
    for url, span, expected in [
            (query + "Documents/big%20file.bin", None, data),
            (query + "Documents/big%20file.bin", "1000-1999", data[1000:2000]),
            (path_info + "Album/02%20Closing.MP3", None, (disk / "Music/Album/02 Closing.MP3").read_bytes()),
            (path_info + "Interlude.mp3", "3-9", (disk / "Music/Interlude.mp3").read_bytes()[3:10]),
            (path_info + "a%2541.mp3", None, b"percent"), (query + "Music/a%2541.mp3", None, b"percent")]:
        head, body = curl(lighttpd.url + url, *(["-H", f"Range: bytes={span}"] if span else []))
        assert head.startswith("HTTP/1.1 206" if span else "HTTP/1.1 200") and body == expected, (url, head)
        assert "X-Sendfile" not in head, head
        # lighttpd sent the PATH_INFO form's file itself (its validators are on the answer).
        assert url.startswith(query) or ("ETag:" in head and "Last-Modified:" in head), head
    # Encoded traversal is decoded first and refused like the plain one.
    refused, _ = curl(lighttpd.url + query + "%2e%2e%2f%2e%2e%2f%2e%2e%2fetc%2fpasswd")
    assert refused.startswith("HTTP/1.1 404"), refused
    refused, _ = curl(lighttpd.url + path_info + "%2e%2e/%2e%2e/%2e%2e/%2e%2e/etc/x.mp3")
    assert not refused.startswith("HTTP/1.1 2"), refused
