#include "platform/dns_servers.h"

#include <arpa/inet.h>

#include <cstdio>

namespace kv::platform {

namespace {

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f'; }

}  // namespace

// "nameserver" blanks address [anything]; lines starting with '#' or ';' are
// comments. Only the first word after the keyword counts.
std::vector<std::string> ParseResolvConf(std::string_view text) {
    std::vector<std::string> servers;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        size_t i = 0;
        while (i < line.size() && IsSpace(line[i])) ++i;
        constexpr std::string_view kKey = "nameserver";
        if (line.substr(i, kKey.size()) != kKey) continue;
        i += kKey.size();
        if (i >= line.size() || !IsSpace(line[i])) continue;
        while (i < line.size() && IsSpace(line[i])) ++i;
        size_t j = i;
        while (j < line.size() && !IsSpace(line[j]) && line[j] != '#' && line[j] != ';') ++j;
        std::string address(line.substr(i, j - i));
        in_addr parsed;
        if (address.size() < INET_ADDRSTRLEN && inet_pton(AF_INET, address.c_str(), &parsed) == 1)
            servers.push_back(address);
    }
    return servers;
}

std::vector<std::string> DnsServers(const char* path) {
    std::FILE* f = std::fopen(path, "rb");
    if (!f) return {};
    std::string text(64 * 1024, '\0');
    size_t n = std::fread(text.data(), 1, text.size(), f);
    std::fclose(f);
    text.resize(n);
    return ParseResolvConf(text);
}

}  // namespace kv::platform
