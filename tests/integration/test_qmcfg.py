"""qmcfg, the shell tool of the host platform, run for real against a
freshly initialised gateway root."""

import fcntl
import subprocess

import pytest
from conftest import events


def dump(qmcfg, *prefix):
    return qmcfg("dump", *prefix).stdout


def test_init_creates_the_root_and_keeps_values(qmcfg, root):
    for path in ("var/quelm/config", "var/quelm/session", "var/quelm/webiad.d", "var/quelm/platform",
                 "var/quelm/wifi.d", "var/tmp", "etc/quelm/init.d", "var/mnt", "lib"):
        assert (root / path).is_dir(), path
    for path in ("etc/quelm/config.default/schema.xml", "etc/quelm/config.default/factory.conf",
                 "var/quelm/config/config.db"):
        assert (root / path).is_file(), path
    assert (root / "var/quelm/config/config.db").stat().st_mode & 0o077 == 0  # holds passwords

    qmcfg("load", "-", input="Device_Hostname=kept\nUser_1001_Username=x\n")
    qmcfg("init")
    assert qmcfg("get", "Device", "Hostname").stdout == "kept\n"
    assert qmcfg("count", "User").stdout == "1,2,3,1001\n"


def test_dump_prints_one_object_in_schema_order(qmcfg):
    assert dump(qmcfg, "Services_IADConfigurator") == (
        "Services_IADConfigurator_Enable=1\n"
        "Services_IADConfigurator_CurrentLanguage=en\n"
        "Services_IADConfigurator_Languages=en,fr\n"
        "Services_IADConfigurator_SessionDelay=1200\n"
        "Services_IADConfigurator_MaxTry=3\n"
        "Services_IADConfigurator_TryDelay=60\n"
        "Services_IADConfigurator_NumberTry=0\n"
        "Services_IADConfigurator_TimeBlock=0\n")
    qmcfg("create", "User_10")
    assert [line for line in dump(qmcfg, "User_1").splitlines() if not line.startswith("User_1_")] == []
    assert dump(qmcfg, "Storage_Item") == ""


# One name of each kind of path: the codes themselves are the schema's.
@pytest.mark.parametrize("name, code", [
    ("Device", "31"),
    ("User", "33"),
    ("HttpServer", "32"),
    ("User_2", "31"),
    ("User_2_Password", "28"),
    ("Services_IADConfigurator_SessionDelay", "3"),
    ("HttpServer_1_UseSession", "4"),
    ("LANDevice_1_IPInterface_1_SubnetMask", "5"),
    ("Storage_Item_7_Status_State", "1"),
])
def test_type_gives_the_schema_code(qmcfg, name, code):
    assert qmcfg("type", name).stdout == code + "\n"


def test_set_saves_unless_told_not_to(qmcfg):
    qmcfg("set", "Services_IADConfigurator", "SessionDelay", "600")
    qmcfg("revert")
    assert qmcfg("get", "Services_IADConfigurator", "SessionDelay").stdout == "600\n"
    assert qmcfg("changes").stdout == ""

    assert "not saved" in qmcfg("-n", "set", "Services_IADConfigurator", "SessionDelay", "900").stdout
    qmcfg("-n", "create", "User_5")
    assert qmcfg("get", "Services_IADConfigurator", "SessionDelay").stdout == "900\n"
    lines = qmcfg("changes").stdout.splitlines()  # what the next commit saves
    assert "Services_IADConfigurator_SessionDelay=900" in lines and "+User_5" in lines and "User_5_Username=" in lines
    qmcfg("revert")
    assert qmcfg("get", "Services_IADConfigurator", "SessionDelay").stdout == "600\n"
    assert qmcfg("count", "User").stdout == "1,2,3\n"

    qmcfg("-n", "delete", "User_2")
    lines = qmcfg("changes").stdout.splitlines()
    assert "-User_2" in lines and "-User_2_Username" in lines
    qmcfg("commit")
    assert qmcfg("changes").stdout == ""
    qmcfg("revert")
    assert qmcfg("count", "User").stdout == "1,3\n"


@pytest.mark.parametrize("args, status, message", [
    ((), 2, "usage"), (("bogus",), 2, "qmcfg: unknown command 'bogus' (qmcfg --help lists them)"),
    (("help", "nope"), 2, "no command 'nope'"), (("get", "Device"), 2, "usage"),
    (("set", "Device", "Hostname"), 2, "usage"), (("reset", "Device", "2"), 2, "usage"), (("-n",), 2, "usage"),
    (("get", "Device", "Nme"), 1, "qmcfg: get: Device_Nme: unknown name: no such property; did you mean Device_Name?"),
    (("get", "Nope_Name"), 1, "Nope_Name: unknown name, or not the kind"),
    (("get", "User_9", "Username"), 1, "nothing stored"),
    (("set", "Services_IADConfigurator", "SessionDelay", "abc"), 1, "does not fit"),
    (("set", "Services_IADConfigurator", "SessionDelay", "-1"), 1, "SessionDelay: -1 is not an unsigned integer"),
    (("set", "User_1_Enable", "7"), 1, "qmcfg: set: User_1_Enable: 7 is not a boolean (0 or 1)"),
    (("set", "Device", "Name", "two\nlines"), 1, "does not fit"),
    (("create", "User", "1"), 1, "User_1: instance already exists"),
    (("create", "HttpServer_9"), 1, "Arrays change at their end"),
    (("delete", "User_9"), 1, "nothing stored"), (("delete", "Device"), 1, "not an instance"),
    (("count", "Device"), 1, "unknown name"), (("count", "Nope"), 1, "Nope: unknown name: no such object"),
    (("type", "User_0"), 1, "unknown name"), (("dump", "Nope"), 1, "unknown name"),
    (("load", "/nonexistent/file"), 1, "cannot read"),
])
def test_bad_input_fails_clearly_and_changes_nothing(qmcfg, args, status, message):
    """Exit status, one line naming what is wrong (or the usage), nothing
    printed on standard output and nothing changed."""
    before = dump(qmcfg)
    done = qmcfg(*args, check=False)
    assert (done.returncode, done.stdout) == (status, "")
    assert message in done.stderr, done.stderr
    assert done.stderr.count("\n") == 1 or "usage:" in done.stderr, done.stderr
    assert dump(qmcfg) == before


def test_dump_and_load_round_trip_all_or_nothing(qmcfg, tmp_path):
    qmcfg("load", "-", input="User_20_Username=bob\nUser_20_Enable=1\nStorage_Item_1_Status_State=ConnectedMounted\n")
    saved = dump(qmcfg)
    assert "User_20_Username=bob\n" in saved
    assert qmcfg("count", "Storage_Item").stdout == "1\n"

    qmcfg("factory")
    assert qmcfg("count", "User").stdout == "1,2,3\n"
    (tmp_path / "saved.conf").write_text(saved)
    qmcfg("load", tmp_path / "saved.conf")
    assert dump(qmcfg) == saved
    # A load is all or nothing.
    (tmp_path / "bad.conf").write_text("Device_Hostname=changed\nUser_30_Username=x\nUser_30_Enable=maybe\n")
    done = qmcfg("load", tmp_path / "bad.conf", check=False)
    # The line and only the cause.
    message = f"qmcfg: load: {tmp_path}/bad.conf line 3: value does not fit User_30_Enable\n"
    assert (done.returncode, done.stderr) == (1, message)
    assert dump(qmcfg) == saved


def test_factory_restores_defaults_and_is_recorded(qmcfg, root):
    qmcfg("set", "User_1", "Password", "secret")
    qmcfg("delete", "PortMapping_2")
    qmcfg("factory")
    assert qmcfg("get", "User_1", "Password").stdout == "admin\n"
    assert qmcfg("count", "PortMapping").stdout == "1,2\n"
    qmcfg("revert")
    assert qmcfg("get", "User_1", "Password").stdout == "admin\n"
    assert events(root) == ["factory 2"]


def test_changes_wait_for_the_configuration_lock(qmcfg, root, env):
    env["QUELM_LOCK_WAIT_MS"] = "100"
    with open(root / "var/quelm/config/config.lock", "a") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        done = qmcfg("set", "Device", "Hostname", "blocked", check=False)
        assert done.returncode == 1
        assert "locked by another process" in done.stderr
        assert qmcfg("get", "Device", "Hostname").stdout == "gateway\n"  # reads need no lock
        fcntl.flock(lock, fcntl.LOCK_UN)
    qmcfg("set", "Device", "Hostname", "free")
    assert qmcfg("get", "Device", "Hostname").stdout == "free\n"




def test_help_and_both_naming_styles(qmcfg):
    overview = qmcfg("--help").stdout
    assert "usage: qmcfg" in overview and "changes" in overview and "--system" in overview
    assert qmcfg("help", "load").stdout.startswith("usage: qmcfg [-n] [--system] load FILE\n")
    assert qmcfg("set", "Device_Hostname", "one").stdout == "Device_Hostname set and committed\n"
    assert qmcfg("get", "Device", "Hostname").stdout == "one\n"
    qmcfg("create", "User", "7")
    assert qmcfg("count", "User").stdout == "1,2,3,7\n"
    assert qmcfg("type", "User", "7").stdout == qmcfg("type", "User_7").stdout


def test_uninitialised_or_missing_root_is_reported(bin_dir, env, tmp_path):
    (tmp_path / "empty").mkdir()
    done = subprocess.run([bin_dir / "qmcfg", "get", "Device", "Hostname"],
                          env=dict(env, QUELM_ROOT=str(tmp_path / "empty")), capture_output=True, text=True)
    assert done.returncode == 1 and "qmcfg init" in done.stderr and not (tmp_path / "empty/var").exists()
    bare = {k: v for k, v in env.items() if k != "QUELM_ROOT"}  # without a root, changes need --system
    for args in (["set", "Device", "Hostname", "x"], ["init"], ["factory"], ["-n", "load", "-"]):
        done = subprocess.run([bin_dir / "qmcfg", *args], env=bare, capture_output=True, text=True, input="")
        assert done.returncode == 1, args
        assert "QUELM_ROOT is not set" in done.stderr and "--system" in done.stderr
