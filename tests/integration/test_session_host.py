"""The gateway's names a request's Host is checked against are kept by a
long-lived responder between requests: a change of the data model made by
another process applies to the very next request."""

import re

import pytest

from fcgi import Responder

COOKIE = re.compile(rb"Set-Cookie: QM_web_ID=")


@pytest.fixture
def responder(bin_dir, env, tmp_path, qmcfg):
    qmcfg("set", "LANDevice_1_IPInterface_1", "IPAddress", "192.168.1.1")
    qmcfg("set", "Device", "Hostname", "gateway")
    with Responder(bin_dir / "cgi-ssi", "ssi", env, tmp_path / "fcgi.sock") as r:
        yield r


def has_session(responder, host):
    params = {"SCRIPT_FILENAME": "/www/index.htm", "SCRIPT_NAME": "/index.htm", "REQUEST_METHOD": "GET",
              "QUELM_REALM": "web", "HTTP_HOST": host, "REMOTE_ADDR": "192.168.1.10",
              "HTTP_USER_AGENT": "Mozilla/5.0 (test)"}
    out, _ = responder.request(params)
    return COOKIE.search(out) is not None


def test_a_changed_name_applies_to_the_next_request(responder, qmcfg):
    assert has_session(responder, "192.168.1.1") and has_session(responder, "gateway:8080")
    assert not has_session(responder, "192.168.1.2")
    qmcfg("set", "LANDevice_1_IPInterface_1", "IPAddress", "192.168.1.2")
    assert has_session(responder, "192.168.1.2")
    assert not has_session(responder, "192.168.1.1")
    qmcfg("set", "Device", "Hostname", "router")
    assert has_session(responder, "router") and not has_session(responder, "gateway")
