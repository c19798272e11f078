#include "codecs/address.h"

#include <string>
#include <vector>

#include "foundation/trace.h"
#include "platform/dns_servers.h"
#include "transport/dns.h"

namespace kv {

namespace {

bool IsAsciiAlnum(unsigned char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}
bool IsAsciiLetter(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }

// Whether c belongs to the class that the pattern character p stands for.
bool Matches(char p, unsigned char c) {
    switch (p) {
        case 'W':
            return IsAsciiAlnum(c) || c == '-' || c == '_' || c == '.' || c == '+' || c == '%' ||
                   c == '!' || c == '=' || c == ',' || c == '\'';
        case 'w':
            return IsAsciiAlnum(c) || c == '-' || c == '_';
        case 'D':
            return c >= '0' && c <= '9';
        default:
            return c == static_cast<unsigned char>(p);
    }
}

// The token is one bracketed block from open through close.
template <class S>
bool IsWhole(const S& token, char open, char close) {
    return token.nSize >= 2 && token.pData[0] == open && token.pData[token.nSize - 1] == close;
}

}  // namespace

std::vector<bstring>& SplitAddressList(const bstring& text, std::vector<bstring>& items) {
    return text.split_list(items, kAddressSeparators, kAddressItemPairs, false, true);
}

std::vector<wbstring>& SplitAddressList(const wbstring& text, std::vector<wbstring>& items) {
    return text.split_list(items, u",;", u"\"\"()<>[]", false, true);
}

std::vector<bstring>& TokenizeAddress(const bstring& item, std::vector<bstring>& tokens) {
    return item.split_blocks(tokens, kAddressStructurePairs, kAddressProtectionPairs, false);
}

std::vector<wbstring>& TokenizeAddress(const wbstring& item, std::vector<wbstring>& tokens) {
    return item.split_blocks(tokens, u"<>()", u"\"\"[]", false);
}

bstring ExtractPureAddress(const bstring& item) {
    std::vector<bstring> tokens;
    TokenizeAddress(item, tokens);
    bstring result;
    if (tokens.empty()) return result;
    if (tokens.size() == 1) {
        if (IsWhole(item, '(', ')')) return result;
        result.assign(item);
        result.trim_all().strip_pairs("<>").trim_all();
        return result;
    }
    for (bstring& token : tokens) {
        token.trim();
        if (IsWhole(token, '<', '>')) {
            result.assign(token.pData + 1, token.nSize - 2);
            return result;
        }
        if (token.nSize > 0 && !IsWhole(token, '(', ')')) result.append(token);
    }
    return result;
}

wbstring ExtractFriendlyName(const wbstring& item) {
    std::vector<wbstring> tokens;
    TokenizeAddress(item, tokens);
    wbstring result;
    if (tokens.empty()) return result;
    if (tokens.size() == 1) {
        result.assign(item);
        result.trim_all().strip_pairs(u"<>\"\"()[]").trim_all();
        return result;
    }
    wbstring pure, non_addr, comment;
    for (const wbstring& raw : tokens) {
        wbstring token(raw);
        token.trim_all();
        if (IsWhole(token, '<', '>')) {
            pure.assign(token.pData + 1, token.nSize - 2);
            pure.trim_all();
            wbstring name(non_addr);
            name.trim_all();
            if (name.nSize > 0) {
                name.strip_pairs(u"\"\"()").trim_all();
                return name;
            }
            continue;
        }
        bool paren = IsWhole(token, '(', ')');
        if (!paren && token.nSize > 0) non_addr.append(raw);
        if (paren && token.nSize > 2) {
            non_addr.append(raw);
            if (comment.nSize > 0) comment += u' ';
            comment.append(token.pData + 1, token.nSize - 2);
        }
    }
    comment.trim_all();
    if (comment.nSize > 0) return comment;
    non_addr.trim_all();
    if (non_addr.nSize > 0) return non_addr;
    return pure;
}

std::vector<bstring>& ParsePureAddresses(const bstring& text, std::vector<bstring>& list) {
    std::vector<bstring> items;
    SplitAddressList(text, items);
    list.clear();
    for (const bstring& item : items) list.push_back(ExtractPureAddress(item));
    return list;
}

std::vector<wbstring>& ParseFriendlyNames(const wbstring& text, std::vector<wbstring>& list) {
    std::vector<wbstring> items;
    SplitAddressList(text, items);
    list.clear();
    for (const wbstring& item : items) list.push_back(ExtractFriendlyName(item));
    return list;
}

int ValidateAddressSyntax(const bstring& address) {
    const int32_t n = address.nSize;
    if (n < 3) return 0;
    const auto* s = reinterpret_cast<const unsigned char*>(address.pData);
    if (!IsAsciiAlnum(s[0]) && s[0] != '_') return 0;

    static const char kMain[] = "W@";
    static const char kDomain[] = "w.W";
    static const char kLiteral[] = "[D.D.D.D]";
    const char* pattern = kMain;
    int32_t at = 0;  // position in the pattern
    bool previous = false, bracket = false;
    int32_t domain = -1;
    int32_t i = 0;
    while (i < n) {
        unsigned char c = s[i];
        char p = pattern[at];
        if (Matches(p, c)) {
            if (previous && c == '@') return 0;
            previous = true;
            ++i;
            continue;
        }
        if (!previous) return 0;
        previous = false;
        if (pattern == kMain && p == '@') {
            if (c == '[') {
                pattern = kLiteral;
                bracket = true;
            } else if (IsAsciiAlnum(c)) {
                pattern = kDomain;
            } else {
                return 0;
            }
            at = 0;
            domain = i;
            previous = true;  // the new pattern starts fresh on this character
            continue;
        }
        if (pattern[at + 1] == 0) return 0;
        ++at;
    }
    if (!previous || domain < 0) return 0;
    if (bracket) {
        if (pattern[at] != ']') return 0;
    } else {
        if (pattern != kDomain || (at != 0 && at != 2) || !IsAsciiLetter(s[n - 1])) return 0;
    }
    bstring host(address.pData + domain, n - domain);
    if (host.find("..") >= 0) return 0;
    return bracket ? 2 : 1;
}

bool GetAddressHost(const bstring& address, bstring& host) {
    host.nSize = 0;
    int32_t at = address.rfind('@');
    if (at < 0 || at == address.nSize - 1) return false;
    host.append_range(address, at + 1);
    return true;
}

bool ValidateEmailAddress(const bstring& address, int32_t options, const bstring& dns_server) {
    Trace("ValidateEmailAddress started");
    int syntax = ValidateAddressSyntax(address);
    if (syntax == 0) {
        Trace("ValidateEmailAddress invalid address");
        return false;
    }
    Trace("ValidateEmailAddress syntax passed");
    if (!(options & 1)) {
        Trace("ValidateEmailAddress syntax only succeeded");
        return true;
    }
    bstring host;
    if (!GetAddressHost(address, host)) {
        Trace("Host is missing");
        return false;
    }
    TraceBegin();
    TraceAppend("Host:");
    Trace();
    Trace(host.pData, host.nSize);
    Trace("ValidateEmailAddress to create socket");
    // The socket layer needs no start-up here.
    bool result = false;
    if (syntax == 1) {
        std::string primary, secondary;
        if (dns_server.nSize > 0) {
            primary.assign(dns_server.pData, size_t(dns_server.nSize));
            secondary = primary;
            TraceBegin();
            TraceAppend("ValidateEmailAddress DNS was specified:");
            Trace();
            Trace(primary.data(), int32_t(primary.size()));
        } else {
            Trace("ValidateEmailAddress to locate DNS server");
            std::vector<std::string> servers = platform::DnsServers();
            Trace("Got NetworkParams");
            if (!servers.empty()) {
                primary = servers[0];
                TraceBegin();
                TraceAppend("DNS1:");
                Trace();
                Trace(primary.data(), int32_t(primary.size()));
            } else {
                Trace("Error: Primary DNS server not available");
            }
            if (servers.size() > 1) {
                secondary = servers[1];
                TraceBegin();
                TraceAppend("DNS2:");
                Trace();
                Trace(secondary.data(), int32_t(secondary.size()));
            }
            if (primary.empty() && secondary.empty()) {
                Trace("No DNS servers available");
                return false;
            }
            if (primary.empty()) primary = secondary;
            if (secondary.empty()) secondary = primary;
        }
        Trace("ValidateEmailAddress DNS servers found, go with MX");
        host.null_terminate();
        std::string name(host.pData, size_t(host.nSize));
        int32_t resolved = 0;
        MXRecord* records = LookupMX(name.c_str(), primary.c_str(), secondary.c_str(),
                                     (options & 2) != 0, false, 3, resolved);
        Trace("ValidateEmailAddress MX search done");
        if (records) {
            Trace("ValidateEmailAddress MX found");
            ReleaseMX(records);
            result = true;
        }
    } else {
        // An address literal: the host must have a name.
        std::string literal(host.pData, size_t(host.nSize));
        if (literal.size() >= 2 && literal.front() == '[' && literal.back() == ']')
            literal = literal.substr(1, literal.size() - 2);
        Trace("ValidateEmailAddress IP");
        std::string name;
        bool readable = false;
        bool found = ReverseLookupIPv4(literal.c_str(), name, &readable);
        if (readable) {
            Trace("ValidateEmailAddress IP none passed");
            Trace("ValidateEmailAddress IP to name passed");
            if (found) {
                Trace("ValidateEmailAddress IP to name succeeded");
                result = true;
            }
        }
    }
    Trace("ValidateEmailAddress finished");
    return result;
}

}  // namespace kv
