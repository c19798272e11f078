// LookupMX against a real dnsmasq, started by the project's own script on a
// loopback address of this process's own at port 53 (the client always asks
// port 53). Needs root for the port; skipped otherwise.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "codecs/address.h"
#include "transport/dns.h"

using namespace kv;

namespace {

class DnsPeer : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        skip_.clear();
        if (geteuid() != 0) {
            skip_ = "needs root to run dnsmasq on port 53";
            return;
        }
        if (std::system("command -v dnsmasq >/dev/null 2>&1 || test -x /usr/sbin/dnsmasq") != 0) {
            skip_ = "dnsmasq is not installed (Debian package dnsmasq-base)";
            return;
        }
        // An address per process, so that parallel test processes (and
        // other checkouts on the machine) never meet on one port.
        unsigned pid = unsigned(getpid());
        address_ = "127." + std::to_string(1 + (pid / 253 / 256) % 200) + "." + std::to_string((pid / 253) % 256) +
                   "." + std::to_string(1 + pid % 253);
        dir_ = "/tmp/korvane-dns-" + std::to_string(pid);
        std::string up = std::string(KV_SOURCE_DIR) + "/tests/integration/peers/dns-up.sh " + dir_ + " " +
                         address_ + " 53 >" + dir_ + ".out 2>&1";
        if (std::system(up.c_str()) != 0) {
            FILE* f = std::fopen((dir_ + ".out").c_str(), "r");
            char why[512] = {0};
            if (f) {
                size_t n = std::fread(why, 1, sizeof why - 1, f);
                why[n] = 0;
                std::fclose(f);
            }
            failed_ = std::string("dnsmasq did not start: ") + why;
        }
    }
    static void TearDownTestSuite() {
        if (dir_.empty()) return;
        std::string down = std::string(KV_SOURCE_DIR) + "/tests/integration/peers/dns-down.sh " + dir_ +
                           "; rm -rf " + dir_ + " " + dir_ + ".out";
        if (std::system(down.c_str()) != 0) std::fprintf(stderr, "dns-down.sh failed\n");
        dir_.clear();
    }
    void SetUp() override {
        if (!skip_.empty()) GTEST_SKIP() << skip_;
        ASSERT_TRUE(failed_.empty()) << failed_;
    }
    static MXRecord* Lookup(const char* name, int32_t& resolved, bool fallback = false) {
        return LookupMX(name, address_.c_str(), "", fallback, false, 2, resolved);
    }

    static std::string skip_, failed_, address_, dir_;
};
std::string DnsPeer::skip_, DnsPeer::failed_, DnsPeer::address_, DnsPeer::dir_;

TEST_F(DnsPeer, ExchangersInPreferenceOrderWithAddresses) {
    int32_t resolved = 0;
    MXRecord* r = Lookup("example.test", resolved);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(resolved, 1);
    ASSERT_EQ(r[0].Count, 2);
    EXPECT_EQ(r[0].Preference, 10);
    EXPECT_STREQ(r[0].Name, "mail.example.test");
    EXPECT_STREQ(r[0].Address, "127.0.0.1");
    EXPECT_EQ(r[1].Preference, 20);
    EXPECT_STREQ(r[1].Name, "mx2.example.test");
    EXPECT_STREQ(r[1].Address, "127.0.0.3");
    ReleaseMX(r);
}

TEST_F(DnsPeer, ExchangerWithoutAddress) {
    int32_t resolved = 0;
    MXRecord* r = Lookup("noip.example.test", resolved);
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(r[0].Count, 1);
    EXPECT_STREQ(r[0].Name, "missing.example.test");
    EXPECT_STREQ(r[0].Address, "");
    ReleaseMX(r);
}

TEST_F(DnsPeer, EqualPreferencesKeepTheServersOrder) {
    int32_t resolved = 0;
    MXRecord* r = Lookup("same.example.test", resolved);
    ASSERT_NE(r, nullptr);
    ASSERT_EQ(r[0].Count, 2);
    std::string a = r[0].Name, b = r[1].Name;
    EXPECT_EQ(r[0].Preference, 5);
    EXPECT_EQ(r[1].Preference, 5);
    EXPECT_NE(a, b);
    EXPECT_TRUE((a == "first.example.test" || a == "second.example.test") &&
                (b == "first.example.test" || b == "second.example.test"));
    ReleaseMX(r);
}

TEST_F(DnsPeer, TruncatedAnswerOfFortyRecordsGivesWhatArrivedSorted) {
    int32_t resolved = 0;
    MXRecord* r = Lookup("big.example.test", resolved);
    ASSERT_NE(r, nullptr);
    int n = r[0].Count;
    EXPECT_GT(n, 0);
    EXPECT_LT(n, 40) << "one UDP answer holds only some of them";
    for (int i = 0; i + 1 < n; ++i) EXPECT_LE(r[i].Preference, r[i + 1].Preference);
    for (int i = 0; i < n; ++i) EXPECT_NE(std::string(r[i].Name).find(".a-rather-long-mail-exchanger-name.example.test"), std::string::npos);
    ReleaseMX(r);
}

TEST_F(DnsPeer, UnknownDomainAndDomainWithoutMX) {
    int32_t resolved = 7;
    EXPECT_EQ(Lookup("nosuch.example.test", resolved), nullptr);
    EXPECT_EQ(resolved, 0) << "NXDOMAIN";
    EXPECT_EQ(Lookup("mail.example.test", resolved), nullptr);
    EXPECT_EQ(resolved, 1) << "the name exists, without MX";
    // The host fallback looks the name up on this machine: localhost never
    // leaves it.
    MXRecord* r = Lookup("localhost", resolved, true);
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r[0].Count, 1);
    EXPECT_STREQ(r[0].Name, "");
    ReleaseMX(r);
}

TEST_F(DnsPeer, SilentFirstServerThenTheSecond) {
    // An unused loopback address is silent: the datagrams go nowhere.
    int32_t resolved = 0;
    std::string silent = "127.254.254.254";
    MXRecord* r = LookupMX("example.test", silent.c_str(), address_.c_str(), false, false, 1, resolved);
    ASSERT_NE(r, nullptr);
    EXPECT_STREQ(r[0].Name, "mail.example.test");
    ReleaseMX(r);
    EXPECT_EQ(LookupMX("example.test", silent.c_str(), address_.c_str(), false, true, 1, resolved), nullptr)
        << "a single attempt asks the first server only";
}

}  // namespace

// The MX level of address validation, asking this dnsmasq.
TEST_F(DnsPeer, ValidateEmailAddressAsksForExchangers) {
    kv::bstring server(address_.c_str());
    struct Case {
        const char* address;
        int32_t options;
        bool valid;
    } cases[] = {
        {"user@example.test", 1, true},
        {"user@nosuch.example.test", 1, false},
        {"user@mail.example.test", 1, false},  // a host without MX records
        {"user@localhost", 1, false},
        {"user@localhost", 3, true},  // a host with an address may stand for itself
        {"user@nosuch.example.test", 0, true},  // syntax only
        {"bad@@example.test", 1, false},
    };
    for (const auto& c : cases)
        EXPECT_EQ(kv::ValidateEmailAddress(kv::bstring(c.address), c.options, server), c.valid)
            << c.address << " options " << c.options;
    // An address literal is valid when its address has a name.
    EXPECT_TRUE(kv::ValidateEmailAddress(kv::bstring("a@[127.0.0.1]"), 1, server));
    EXPECT_FALSE(kv::ValidateEmailAddress(kv::bstring("a@[999.1.1.1]"), 1, server));
}
