#include "transport/dns.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <string>

#include "foundation/trace.h"

namespace kv {

namespace {

constexpr uint16_t kQueryId = 4575;
constexpr int kMaxLabels = 2048;  // of one name's expansion, pointers included
constexpr size_t kMaxNameText = 1024;

void TraceText(const char* text, const char* value) {
    TraceBegin();
    TraceAppend(text);
    TraceAppend(value);
    Trace();
}

void TraceNumber(const char* text, int64_t value) {
    TraceBegin();
    TraceAppend(text);
    TraceAppendInt(value);
    Trace();
}

uint16_t Read16(const uint8_t* msg, int32_t length, int64_t pos) {
    if (pos < 0 || pos + 2 > length) return 0;
    return uint16_t(msg[pos] << 8 | msg[pos + 1]);
}

// A name as it stands at pos:
//   name = *label (0x00 / pointer)   label = length(1..63) octets
//   pointer = two bytes whose first has a high bit set; the target is the
//   second byte alone, an offset from the start of the message.
// Appends the dotted text to out (up to kMaxNameText) and gives the encoded
// length at pos: up to and with the terminating zero, or the pointer's two
// bytes. Every step, pointers included, uses up one of kMaxLabels, so a
// pointer loop ends.
int32_t ExpandName(const uint8_t* msg, int32_t length, int32_t pos, std::string& out) {
    int32_t encoded = -1;
    const int32_t start = pos;
    bool first = true;
    for (int steps = 0; steps < kMaxLabels && pos >= 0 && pos < length; ++steps) {
        uint8_t b = msg[pos];
        if (b == 0) {
            if (encoded < 0) encoded = pos + 1 - start;
            return encoded;
        }
        if (b & 0xC0) {
            if (encoded < 0) encoded = pos + 2 - start;
            if (pos + 1 >= length) break;
            pos = msg[pos + 1];
            continue;
        }
        if (!first && out.size() < kMaxNameText) out.push_back('.');
        first = false;
        int32_t n = std::min<int32_t>(b, length - pos - 1);
        if (out.size() < kMaxNameText)
            out.append(reinterpret_cast<const char*>(msg + pos + 1),
                       std::min<size_t>(size_t(n), kMaxNameText - out.size()));
        pos += 1 + b;
    }
    // Ran off the datagram or out of steps: what was read counts as the name.
    if (encoded < 0) encoded = std::max(std::min(pos, length) - start, 0);
    return encoded;
}

void CopyField(char (&field)[256], const std::string& text) {
    size_t n = std::min(text.size(), sizeof field - 1);
    std::memcpy(field, text.data(), n);
    field[n] = '\0';
}

bool HostHasAddress(const char* name) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    addrinfo* list = nullptr;
    if (getaddrinfo(name, nullptr, &hints, &list) != 0) return false;
    freeaddrinfo(list);
    return true;
}

}  // namespace

int32_t BuildDnsQuery(const char* name, uint16_t type, uint8_t* buffer) {
    std::memset(buffer, 0, 12);
    buffer[0] = kQueryId >> 8;
    buffer[1] = kQueryId & 0xFF;
    buffer[2] = 0x01;  // RD
    buffer[5] = 1;     // QDCOUNT
    int32_t pos = 12;
    const char* label = name ? name : "";
    // Each dot-separated label behind its length; a name ending in a dot
    // gets an empty last label, as the name is cut at every dot.
    for (;;) {
        const char* dot = std::strchr(label, '.');
        size_t n = dot ? size_t(dot - label) : std::strlen(label);
        if (n > 255 || pos + 1 + int64_t(n) + 1 + 4 > kDnsBufferSize) return 0;
        buffer[pos++] = uint8_t(n);
        std::memcpy(buffer + pos, label, n);
        pos += int32_t(n);
        if (!dot) break;
        label = dot + 1;
    }
    buffer[pos++] = 0;
    buffer[pos++] = uint8_t(type >> 8);
    buffer[pos++] = uint8_t(type & 0xFF);
    buffer[pos++] = 0;
    buffer[pos++] = 1;  // QCLASS IN
    return pos;
}

int32_t QueryDNS(const char* name, const char* server, int32_t port, uint16_t type, uint8_t* buffer,
                 int32_t timeoutSeconds) {
    Trace("DNS Query started");
    sockaddr_in to{};
    to.sin_family = AF_INET;
    if (port == 0) {
        servent entry{}, *found = nullptr;
        char work[1024];
        getservbyname_r("nameserver", "udp", &entry, work, sizeof work, &found);
        to.sin_port = found ? uint16_t(found->s_port) : htons(53);
    } else {
        to.sin_port = htons(uint16_t(port));
    }
    in_addr_t address = inet_addr(server ? server : "");
    if (address == INADDR_NONE) {
        addrinfo hints{};
        hints.ai_family = AF_INET;
        addrinfo* list = nullptr;
        if (!server || getaddrinfo(server, nullptr, &hints, &list) != 0 || !list) {
            Trace("DNS Query failed to resolve DNS server name");
            return -2;
        }
        address = reinterpret_cast<const sockaddr_in*>(list->ai_addr)->sin_addr.s_addr;
        freeaddrinfo(list);
    }
    to.sin_addr.s_addr = address;

    Trace("DNS Query to create socket");
    int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (sock < 0) {
        Trace("DNS Query failed to create socket");
        return -3;
    }
    int32_t query_length = BuildDnsQuery(name, type, buffer);
    Trace("DNS Query to send");
    if (query_length == 0 ||
        sendto(sock, buffer, size_t(query_length), 0, reinterpret_cast<sockaddr*>(&to), sizeof to) < 0) {
        Trace("DNS Query failed to send");
        close(sock);
        return -4;
    }
    pollfd p{sock, POLLIN, 0};
    int wait_ms = timeoutSeconds <= 0 ? 0 : int(std::min<int64_t>(int64_t(timeoutSeconds) * 1000, INT_MAX));
    int ready = poll(&p, 1, wait_ms);
    if (ready == 0) {
        Trace("DNS Query timed out");
        close(sock);
        return 0;
    }
    // Neither the identifier nor the sender is compared with the question.
    ssize_t n = recvfrom(sock, buffer, kDnsBufferSize, 0, nullptr, nullptr);
    int err = errno;
    close(sock);
    if (n < 0) {
        if (err == ETIMEDOUT) {
            Trace("DNS Query timed out");
            return 0;
        }
        Trace("DNS Query failed to receive");
        return -5;
    }
    TraceNumber("DNS Query received bytes ", n);
    return int32_t(n);
}

MXRecord* ParseMX(const uint8_t* answer, int32_t length, int32_t& resolved) {
    Trace("MX Lookup to parse answer");
    if (!answer || length < 12) return nullptr;
    int32_t ancount = Read16(answer, length, 6);
    int32_t remaining = ancount + Read16(answer, length, 8) + Read16(answer, length, 10);
    std::string working;
    int32_t qname = ExpandName(answer, length, 12, working);
    // The first owner name is taken to be a 2-byte pointer.
    int64_t type_pos = 12 + int64_t(qname) + 4 + 2;
    if (ancount > 0 && Read16(answer, length, type_pos) == 5) {
        if (--ancount == 0) return nullptr;
    }
    if (ancount == 0) {
        Trace("MX Lookup no answer");
        resolved = (answer[3] & 0x0F) == 0 ? 1 : 0;
        if (resolved) Trace("because SMTP relay name is domain name itself.");
        return nullptr;
    }
    // A count that lies cannot ask for more records than the datagram could
    // hold (a record takes at least 11 bytes); real answers are never cut.
    ancount = std::min(ancount, std::max((length - 12) / 11, 1));
    auto* records = new MXRecord[size_t(ancount)]();
    int32_t index = 0;
    int32_t mx_left = ancount;
    while (remaining > 0 && type_pos + 10 <= length) {
        --remaining;
        uint16_t type = Read16(answer, length, type_pos);
        int64_t rdata = type_pos + 10;
        int64_t rdlength = Read16(answer, length, type_pos + 8);
        bool stop = false;
        switch (type) {
            case 15: {
                uint16_t preference = Read16(answer, length, rdata);
                std::string exchange;
                ExpandName(answer, length, int32_t(std::min<int64_t>(rdata + 2, length)), exchange);
                if (mx_left > 0) {
                    // A records met before this MX may have moved index to
                    // the end already: such an exchanger finds no slot.
                    if (index < ancount) {
                        records[index].Preference = preference;
                        CopyField(records[index].Name, exchange);
                    }
                    ++index;
                    if (--mx_left == 0) index = 0;  // the A records fill the addresses in order
                }
                break;
            }
            case 1:
                if (index < ancount && rdata + 4 <= length) {
                    char text[16];
                    std::snprintf(text, sizeof text, "%u.%u.%u.%u", answer[rdata], answer[rdata + 1],
                                  answer[rdata + 2], answer[rdata + 3]);
                    CopyField(records[index].Address, text);
                    ++index;
                }
                break;
            case 2:
                break;
            case 5:
                working.clear();
                ExpandName(answer, length, int32_t(std::min<int64_t>(rdata, length)), working);
                break;
            default:
                stop = true;
        }
        if (stop) break;
        // The next owner is taken to be a 2-byte pointer; a name written out
        // in full is passed over by moving to the next zero byte.
        type_pos = rdata + rdlength + 2;
        while (type_pos < length && answer[type_pos] != 0) ++type_pos;
    }
    Trace("MX Lookup will sort MX");
    for (int32_t i = 0; i < ancount; ++i) records[i].Count = uint16_t(ancount);
    for (int32_t pass = 0; pass + 1 < ancount; ++pass) {
        bool swapped = false;
        for (int32_t j = 0; j + 1 < ancount - pass; ++j) {
            if (records[j].Preference > records[j + 1].Preference) {
                std::swap(records[j], records[j + 1]);
                swapped = true;
            }
        }
        if (!swapped) break;
    }
    Trace("MX Lookup succeeded");
    resolved = 1;
    return records;
}

MXRecord* LookupMX(const char* name, const char* server1, const char* server2, bool allowHostFallback,
                   bool singleAttempt, int32_t timeoutSeconds, int32_t& resolved, int32_t port) {
    Trace("MX Lookup started");
    resolved = 0;
    uint8_t buffer[kDnsBufferSize];
    TraceText("MX Lookup asks DNS server ", server1 ? server1 : "");
    int32_t got = QueryDNS(name, server1, port, kDnsTypeMX, buffer, timeoutSeconds);
    if (got == 0 && !singleAttempt) got = QueryDNS(name, server1, port, kDnsTypeMX, buffer, timeoutSeconds);
    if (got < 1 && server2 && *server2 && !singleAttempt) {
        TraceText("MX Lookup asks DNS server ", server2);
        got = QueryDNS(name, server2, port, kDnsTypeMX, buffer, timeoutSeconds);
        if (got == 0) got = QueryDNS(name, server2, port, kDnsTypeMX, buffer, timeoutSeconds);
    }
    if (got < 1) {
        Trace("MX Lookup done. DNS server failed");
        return nullptr;
    }
    MXRecord* records = ParseMX(buffer, got, resolved);
    if (!records && allowHostFallback && name && HostHasAddress(name)) {
        records = new MXRecord[1]();
        records[0].Count = 1;
    }
    Trace("Main MX Lookup done. DNS server worked out");
    return records;
}

void ReleaseMX(MXRecord* records) { delete[] records; }

bool ReverseLookupIPv4(const char* dotted, std::string& name, bool* readable) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    bool ok = dotted && inet_pton(AF_INET, dotted, &address.sin_addr) == 1;
    if (readable) *readable = ok;
    if (!ok) return false;
    char host[NI_MAXHOST];
    if (getnameinfo(reinterpret_cast<sockaddr*>(&address), sizeof address, host, sizeof host,
                    nullptr, 0, NI_NAMEREQD) != 0)
        return false;
    name = host;
    return true;
}

}  // namespace kv
