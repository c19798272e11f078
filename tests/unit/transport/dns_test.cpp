// The DNS client: the query bytes, the walk of crafted answers (also hostile
// ones), the order of the records, the attempts of LookupMX against a fake
// UDP server on 127.0.0.1, and the resolver configuration.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "platform/dns_servers.h"
#include "transport/dns.h"

using namespace kv;

namespace {

using Bytes = std::vector<uint8_t>;

void Put16(Bytes& b, uint16_t v) {
    b.push_back(uint8_t(v >> 8));
    b.push_back(uint8_t(v));
}

void PutName(Bytes& b, const std::string& name) {
    size_t start = 0;
    while (start < name.size()) {
        size_t dot = name.find('.', start);
        if (dot == std::string::npos) dot = name.size();
        b.push_back(uint8_t(dot - start));
        b.insert(b.end(), name.begin() + long(start), name.begin() + long(dot));
        start = dot + 1;
    }
    b.push_back(0);
}

// An answer as a server writes it: the question, then records whose owner
// is a pointer to the question's name.
struct Answer {
    Bytes bytes;
    explicit Answer(const std::string& qname, uint16_t an, uint16_t ns, uint16_t ar, uint8_t rcode = 0) {
        Put16(bytes, 4575);
        bytes.push_back(0x81);
        bytes.push_back(uint8_t(0x80 | rcode));
        Put16(bytes, 1);
        Put16(bytes, an);
        Put16(bytes, ns);
        Put16(bytes, ar);
        PutName(bytes, qname);
        Put16(bytes, 15);
        Put16(bytes, 1);
    }
    Answer& Record(uint16_t type, const Bytes& rdata) {
        bytes.push_back(0xC0);
        bytes.push_back(0x0C);
        Put16(bytes, type);
        Put16(bytes, 1);
        Put16(bytes, 0);
        Put16(bytes, 300);
        Put16(bytes, uint16_t(rdata.size()));
        bytes.insert(bytes.end(), rdata.begin(), rdata.end());
        return *this;
    }
    Answer& MX(uint16_t pref, const std::string& host) {
        Bytes r;
        Put16(r, pref);
        PutName(r, host);
        return Record(15, r);
    }
    Answer& A(uint8_t a, uint8_t b, uint8_t c, uint8_t d) { return Record(1, {a, b, c, d}); }
    Answer& CNAME(const std::string& target) {
        Bytes r;
        PutName(r, target);
        return Record(5, r);
    }
};

struct Parsed {
    bool null = true;
    int32_t resolved = 7;
    std::vector<std::tuple<int, std::string, std::string>> records;  // preference, name, address
    int count = 0;
};

Parsed Parse(const Bytes& b) {
    Parsed p;
    MXRecord* r = ParseMX(b.data(), int32_t(b.size()), p.resolved);
    if (!r) return p;
    p.null = false;
    p.count = r[0].Count;
    for (int i = 0; i < r[0].Count; ++i) {
        EXPECT_EQ(r[i].Count, r[0].Count);
        p.records.emplace_back(r[i].Preference, r[i].Name, r[i].Address);
    }
    ReleaseMX(r);
    return p;
}

using Rec = std::tuple<int, std::string, std::string>;

TEST(DnsQuery, MessageBytes) {
    uint8_t buf[kDnsBufferSize];
    int32_t n = BuildDnsQuery("ab.cde", 15, buf);
    const Bytes expected = {0x11, 0xDF, 0x01, 0x00, 0, 1, 0, 0, 0, 0, 0, 0,
                            2, 'a', 'b', 3, 'c', 'd', 'e', 0, 0, 15, 0, 1};
    EXPECT_EQ(Bytes(buf, buf + n), expected);

    n = BuildDnsQuery("ab.", 15, buf);
    EXPECT_EQ(Bytes(buf + 12, buf + n), (Bytes{2, 'a', 'b', 0, 0, 0, 15, 0, 1})) << "empty last label";

    EXPECT_EQ(BuildDnsQuery(std::string(3000, 'a').c_str(), 15, buf), 0) << "does not fit";
    std::string many;
    for (int i = 0; i < 1100; ++i) many += "a.";
    EXPECT_EQ(BuildDnsQuery(many.c_str(), 15, buf), 0);
}

TEST(ParseMX, WellFormedAnswers) {
    struct Case {
        const char* name;
        Bytes answer;
        bool null;
        int32_t resolved;
        std::vector<Rec> records;
    };
    const Case cases[] = {
        {"sorted by preference, addresses in MX order",
         Answer("example.test", 2, 0, 2).MX(20, "mx2.example.test").MX(10, "mail.example.test").A(127, 0, 0, 2).A(127, 0, 0, 1).bytes,
         false, 1, {Rec{10, "mail.example.test", "127.0.0.1"}, Rec{20, "mx2.example.test", "127.0.0.2"}}},
        {"equal preferences keep the server's order",
         Answer("e.test", 3, 0, 0).MX(5, "b.e.test").MX(1, "z.e.test").MX(5, "a.e.test").bytes, false, 1,
         {Rec{1, "z.e.test", ""}, Rec{5, "b.e.test", ""}, Rec{5, "a.e.test", ""}}},
        {"a pointer inside the exchange name",
         [] {
             Answer a("example.test", 1, 0, 0);
             Bytes r;
             Put16(r, 7);
             r.insert(r.end(), {3, 'm', 'x', '1', 0xC0, 0x0C});
             return a.Record(15, r).bytes;
         }(),
         false, 1, {Rec{7, "mx1.example.test", ""}}},
        {"CNAME first, then the MX of its target",
         Answer("alias.test", 2, 0, 0).CNAME("real.test").MX(10, "mx.real.test").bytes, false, 1,
         {Rec{10, "mx.real.test", ""}}},
        {"CNAME only", Answer("alias.test", 1, 0, 0).CNAME("real.test").bytes, true, 7, {}},
        {"NXDOMAIN", Answer("nosuch.test", 0, 0, 0, 3).bytes, true, 0, {}},
        {"no records, no error", Answer("host.test", 0, 0, 0, 0).bytes, true, 1, {}},
        {"an unknown type ends the walk",
         Answer("e.test", 2, 0, 0).MX(10, "a.e.test").Record(16, {3, 'x', 'y', 'z'}).MX(5, "b.e.test").bytes,
         false, 1, {Rec{0, "", ""}, Rec{10, "a.e.test", ""}}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Parsed p = Parse(c.answer);
        EXPECT_EQ(p.null, c.null);
        EXPECT_EQ(p.resolved, c.resolved);
        EXPECT_EQ(p.records, c.records);
    }
}

TEST(ParseMX, HostileAnswersStayInside) {
    // Every answer here must come back without reading outside its bytes
    // (ASan watches) and without hanging.
    Bytes loop = Answer("e.test", 1, 0, 0).bytes;
    loop.insert(loop.end(), {0xC0, 0x0C, 0, 15, 0, 1, 0, 0, 0, 0, 0, 4, 0, 1, 0xC0, uint8_t(loop.size() + 14)});
    Parsed p = Parse(loop);
    ASSERT_FALSE(p.null);
    EXPECT_EQ(std::get<0>(p.records[0]), 1);
    EXPECT_LT(std::get<1>(p.records[0]).size(), 256u) << "a pointer to itself ends";

    Bytes past = Answer("e.test", 1, 0, 0).bytes;
    past.insert(past.end(), {0xC0, 0x0C, 0, 15, 0, 1, 0, 0, 0, 0, 0, 4, 0, 1, 0xC0, 0xFF});
    EXPECT_FALSE(Parse(past).null) << "a pointer past the end gives an empty name";

    Bytes lying = Answer("e.test", 0xFFFF, 0xFFFF, 0xFFFF).MX(1, "a.e.test").bytes;
    p = Parse(lying);
    ASSERT_FALSE(p.null);
    EXPECT_LE(p.count, int(lying.size()) / 11) << "a count that lies asks for no more than fits";
    // The records the count promised but the datagram lacks stay empty, and
    // with preference 0 they sort first.
    EXPECT_EQ(std::get<1>(p.records.back()), "a.e.test");
    EXPECT_EQ(std::get<1>(p.records.front()), "");

    Bytes label_past = Answer("e.test", 1, 0, 0).bytes;
    label_past.insert(label_past.end(), {0xC0, 0x0C, 0, 15, 0, 1, 0, 0, 0, 0, 0, 40, 0, 1, 63, 'a'});
    EXPECT_EQ(std::get<1>(Parse(label_past).records.at(0)), "a");

    // A records ahead of the MX records move the slot index past the end
    // before the exchangers come.
    p = Parse(Answer("e.test", 2, 0, 2).A(127, 0, 0, 1).A(127, 0, 0, 2).MX(1, "a.e.test").MX(2, "b.e.test").bytes);
    ASSERT_EQ(p.records.size(), 2u);
    EXPECT_EQ(std::get<2>(p.records[0]), "127.0.0.1");
    EXPECT_EQ(std::get<2>(p.records[1]), "127.0.0.2");

    EXPECT_TRUE(Parse(Bytes{0x11, 0xDF, 0x81}).null);
    EXPECT_TRUE(Parse(Bytes{}).null);

    // Every cut of a good answer, and every single byte flipped.
    Bytes good = Answer("example.test", 2, 1, 2).MX(20, "mx2.example.test").MX(10, "mail.example.test")
                     .Record(2, {2, 'n', 's', 0}).A(127, 0, 0, 2).A(127, 0, 0, 1).bytes;
    for (size_t n = 0; n <= good.size(); ++n) Parse(Bytes(good.begin(), good.begin() + long(n)));
    for (size_t i = 0; i < good.size(); ++i) {
        for (uint8_t v : {uint8_t(0x00), uint8_t(0xC0), uint8_t(0xFF), uint8_t(0x3F)}) {
            Bytes b = good;
            b[i] = v;
            Parsed q = Parse(b);
            for (auto& r : q.records) EXPECT_LT(std::get<1>(r).size(), 256u);
        }
    }
}

// A UDP server on 127.0.0.1 that counts the questions and answers each with
// a fixed datagram, or with silence.
class FakeDns {
public:
    explicit FakeDns(Bytes reply) : reply_(std::move(reply)) {
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a);
        socklen_t len = sizeof a;
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len);
        port_ = ntohs(a.sin_port);
        thread_ = std::thread([this] {
            while (!stop_) {
                pollfd p{fd_, POLLIN, 0};
                if (poll(&p, 1, 10) <= 0) continue;
                uint8_t buf[kDnsBufferSize];
                sockaddr_in from{};
                socklen_t flen = sizeof from;
                ssize_t n = recvfrom(fd_, buf, sizeof buf, 0, reinterpret_cast<sockaddr*>(&from), &flen);
                if (n <= 0) continue;
                last_.assign(buf, buf + n);
                ++questions_;
                if (!reply_.empty())
                    sendto(fd_, reply_.data(), reply_.size(), 0, reinterpret_cast<sockaddr*>(&from), flen);
            }
        });
    }
    ~FakeDns() {
        stop_ = true;
        thread_.join();
        close(fd_);
    }
    int port() const { return port_; }
    // Questions seen once the socket has been quiet a moment.
    int Questions() {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        return questions_;
    }
    Bytes last_;

private:
    Bytes reply_;
    int fd_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    std::atomic<int> questions_{0};
    std::thread thread_;
};

TEST(QueryDNS, AsksAndReads) {
    Bytes reply = Answer("example.test", 1, 0, 0).MX(10, "mail.example.test").bytes;
    FakeDns server(reply);
    uint8_t buf[kDnsBufferSize];
    EXPECT_EQ(QueryDNS("example.test", "127.0.0.1", server.port(), 15, buf, 2), int32_t(reply.size()));
    EXPECT_EQ(Bytes(buf, buf + reply.size()), reply);
    uint8_t q[kDnsBufferSize];
    int32_t qn = BuildDnsQuery("example.test", 15, q);
    EXPECT_EQ(server.last_, Bytes(q, q + qn));
    EXPECT_EQ(QueryDNS("example.test", "", 53, 15, buf, 1), -2) << "no server name";
}

TEST(QueryDNS, SilenceIsZeroAfterTheTimeout) {
    FakeDns server({});
    uint8_t buf[kDnsBufferSize];
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(QueryDNS("example.test", "127.0.0.1", server.port(), 15, buf, 1), 0);
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GE(took, 0.9);
    EXPECT_LT(took, 2.0);
}

TEST(LookupMX, AttemptsOnSilence) {
    struct Case {
        bool single;
        bool second;
        int first_questions, second_questions;
    };
    const Case cases[] = {{false, true, 2, 2}, {true, true, 1, 0}, {false, false, 2, 0}};
    for (const Case& c : cases) {
        FakeDns silent({});
        int32_t resolved = 9;
        // Time-out 0: each question gives up at once, so the count is quick.
        MXRecord* r = LookupMX("example.test", "127.0.0.1", c.second ? "127.0.0.1" : "", false, c.single, 0,
                               resolved, silent.port());
        EXPECT_EQ(r, nullptr);
        EXPECT_EQ(resolved, 0);
        EXPECT_EQ(silent.Questions(), c.first_questions + c.second_questions) << c.single << c.second;
    }
}

TEST(LookupMX, AnswersAndFallback) {
    FakeDns server(Answer("example.test", 2, 0, 0).MX(20, "b.example.test").MX(10, "a.example.test").bytes);
    int32_t resolved = 0;
    MXRecord* r = LookupMX("example.test", "127.0.0.1", "", false, false, 2, resolved, server.port());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(resolved, 1);
    EXPECT_EQ(r[0].Count, 2);
    EXPECT_STREQ(r[0].Name, "a.example.test");
    EXPECT_STREQ(r[1].Name, "b.example.test");
    ReleaseMX(r);

    // No MX, but the name has an address of its own (a numeric name never
    // leaves the machine).
    FakeDns empty(Answer("127.0.0.1", 0, 0, 0).bytes);
    r = LookupMX("127.0.0.1", "127.0.0.1", "", false, false, 2, resolved, empty.port());
    EXPECT_EQ(r, nullptr);
    EXPECT_EQ(resolved, 1);
    r = LookupMX("127.0.0.1", "127.0.0.1", "", true, false, 2, resolved, empty.port());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r[0].Count, 1);
    EXPECT_STREQ(r[0].Name, "");
    ReleaseMX(r);
}

TEST(DnsServers, ResolverConfiguration) {
    struct Case {
        const char* text;
        std::vector<std::string> servers;
    };
    const Case cases[] = {
        {"nameserver 10.0.0.1\nnameserver 10.0.0.2\n", {"10.0.0.1", "10.0.0.2"}},
        {"# nameserver 1.1.1.1\n; nameserver 2.2.2.2\nsearch x\n  nameserver\t9.9.9.9 # note\r\n", {"9.9.9.9"}},
        {"nameserver ::1\nnameserver fe80::1%eth0\nnameserver 127.0.0.53", {"127.0.0.53"}},
        {"nameservers 1.2.3.4\nnameserver 300.1.1.1\nnameserver\nnameserver 1.2.3.4;x", {"1.2.3.4"}},
        {"", {}},
    };
    for (const Case& c : cases) EXPECT_EQ(platform::ParseResolvConf(c.text), c.servers) << c.text;
    EXPECT_TRUE(platform::DnsServers("/nonexistent/resolv.conf").empty());
}

}  // namespace
