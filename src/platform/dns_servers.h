// The DNS servers of this machine, for the MX lookups: the nameserver lines
// of the resolver configuration, in their order.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kv::platform {

// IPv4 servers only, as dotted text: the DNS client asks over IPv4. Reads at
// most 64 KiB of the file; an unreadable file gives an empty list.
std::vector<std::string> DnsServers(const char* path = "/etc/resolv.conf");

// The same from the text of such a file.
std::vector<std::string> ParseResolvConf(std::string_view text);

}  // namespace kv::platform
