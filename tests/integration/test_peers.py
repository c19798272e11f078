"""The peers themselves, through Python's own client, so that a failure of the
POP3 tests can be told apart from a server that isn't set up right."""
import poplib
import ssl

from mailpeers import BOB, CYRUS_ALICE


def test_mailbox_helpers_reach_dovecot_and_cyrus_takes_logins(peers):
    peers.fill(BOB[0], [b"Subject: one\r\n\r\nfirst\r\n", b"Subject: two\r\n\r\n.dotted\r\n"])
    peers.deliver(BOB[0], b"Subject: three\r\n\r\nby LMTP\r\n")
    context = ssl.create_default_context(cafile=peers.ca)
    pop = poplib.POP3_SSL("127.0.0.1", peers.pop3s, context=context, timeout=30)
    try:
        pop.user(BOB[0])
        pop.pass_(BOB[1])
        assert pop.stat()[0] == 3
        assert pop.retr(2)[1][-1] == b".dotted"
        assert pop.retr(3)[1][-1] == b"by LMTP"
    finally:
        pop.quit()
    peers.clear(BOB[0])
    pop = poplib.POP3("127.0.0.1", peers.pop3, timeout=30)
    pop.user(BOB[0])
    pop.pass_(BOB[1])
    assert pop.stat() == (0, 0)
    pop.quit()

    pop = poplib.POP3("127.0.0.1", peers.cyrus_pop3, timeout=30)
    pop.user(CYRUS_ALICE[0])
    assert pop.pass_(CYRUS_ALICE[1]).startswith(b"+OK")
    pop.quit()
