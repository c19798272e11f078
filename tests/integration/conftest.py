import os
import sys

import pytest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "..", "python"))

from mailpeers import MailPeers, PeersUnavailable  # noqa: E402


@pytest.fixture(scope="session")
def peers():
    """The KDC, Dovecot, Cyrus and Postfix, started once for the session and stopped at
    its end, whatever happened; the tests that use them skip where they can't run.
    The Kerberos settings go into the environment for the library's GSSAPI."""
    try:
        started = MailPeers.start()
    except PeersUnavailable as e:
        pytest.skip(str(e))
    saved = {k: os.environ.get(k) for k in started.krb5_env}
    os.environ.update(started.krb5_env)
    try:
        yield started
    finally:
        for k, v in saved.items():
            if v is None:
                os.environ.pop(k, None)
            else:
                os.environ[k] = v
        started.stop()
