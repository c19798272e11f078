"""Korvane.SSL as a script prepares it: protocols, certificates, stores."""
import datetime
import os
import shutil
import subprocess

import pytest

import korvane

HERE = os.path.dirname(os.path.abspath(__file__))
MAKE_CERTS = os.path.join(HERE, "..", "integration", "tls", "make-certs.sh")


@pytest.fixture(scope="module")
def certs(tmp_path_factory):
    if shutil.which("openssl") == "":
        pytest.skip("openssl is not installed")
    d = tmp_path_factory.mktemp("certs")
    subprocess.run(["sh", MAKE_CERTS, str(d)], check=True, capture_output=True, timeout=60)
    return d


@pytest.fixture
def ssl(leakcheck):
    s = korvane.CreateObject("Korvane.SSL")
    yield s
    korvane.release(s)


def test_created_object_is_enabled_with_defaults(ssl):
    assert ssl.Enabled is True
    assert ssl.AutosetPortAndSSL is True
    assert ssl.UseStartTLS is False
    assert ssl.VerifyServerCert is False
    assert (ssl.Protocol, ssl.Algorithm, ssl.SSLError, ssl.SSLSpecificError) == (0, 0, 0, 0)
    server = ssl.ServerCert
    assert server.Exists is False
    assert server.IssuedTo == "" and server.IssuedBy == "" and server.FriendlyName == ""
    assert ssl.GetObject != 0
    korvane.release(server)


@pytest.mark.parametrize("written, mask", [
    (0, 0), (1, 0x3), (2, 0xC), (3, 0x30), (4, 0xC0), (5, 0x300), (6, 3072), (7, 0x3000),
    (8, 0), (-1, 0), (0xC00, 0),
])
def test_protocol_write_selects_a_mask(ssl, written, mask):
    ssl.Protocol = written
    assert ssl.Protocol == mask


def test_algorithm_always_reads_zero(ssl):
    ssl.Algorithm = 26128
    assert ssl.Algorithm == 0


def test_flags_read_back(ssl):
    ssl.UseStartTLS = True
    ssl.VerifyServerCert = True
    ssl.Enabled = False
    ssl.AutosetPortAndSSL = False
    assert (ssl.UseStartTLS, ssl.VerifyServerCert, ssl.Enabled, ssl.AutosetPortAndSSL) == (True, True, False, False)


@pytest.mark.parametrize("name, args, error", [
    ("wrong password", ("client.p12", 2, "", "", "", "wrong"), 25),
    ("no such friendly name", ("client.p12", 2, "", "", "Nobody", "pfx-secret"), 22),
    ("missing file", ("absent.p12", 2, "", "", "", ""), 21),
    ("unknown store type", ("client.pem", 9), 21),
])
def test_select_client_cert_failures(ssl, certs, name, args, error):
    path = str(certs / args[0])
    assert ssl.SelectClientCert(path, *args[1:]) is False
    assert ssl.SSLError == error
    assert ssl.SSLSpecificError == 0
    holder = ssl.ClientCert
    assert holder.Exists is True  # set whatever the outcome
    assert holder.IssuedTo == ""
    korvane.release(holder)


@pytest.mark.parametrize("args", [
    ("client.p12", 2, "", "", "Korvane Test Client", "pfx-secret"),
    ("client.p12", 2, "Korvane Test Client", "Korvane Test CA", "", "pfx-secret"),
    ("client.pem", 1, "", "Korvane Test CA"),
])
def test_select_client_cert_fills_the_holder(ssl, certs, args):
    assert ssl.SelectClientCert(str(certs / args[0]), *args[1:]) is True
    assert ssl.SSLError == 0
    holder = ssl.ClientCert
    assert holder.IssuedTo == "Korvane Test Client"
    assert holder.IssuedBy == "Korvane Test CA"
    assert holder.Exists is True
    assert holder.ExpirationDate > datetime.datetime.now() + datetime.timedelta(days=300)
    korvane.release(holder)


def test_select_server_cert_store(ssl, certs):
    assert ssl.SelectServerCertStore("ROOT", 0) is True
    assert ssl.SelectServerCertStore(str(certs / "ca-store.pem"), 1, 0x80) is True
    assert ssl.SelectServerCertStore(str(certs / "absent.pem"), 1) is False
    assert ssl.SelectServerCertStore(str(certs / "ca-store.pem"), 3) is False


def test_cert_info_is_a_class_of_its_own(leakcheck):
    info = korvane.CreateObject("Korvane.CertInfo")
    assert info.Exists is False
    assert info.IssuedTo == "" and info.Email == ""
    assert (info.Status, info.Win32Status) == (0, 0)
    korvane.release(info)
