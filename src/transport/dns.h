// A small DNS client of our own over UDP: one MX question, one datagram back,
// and a deliberately simple walk of the answer that takes the shape of a
// typical reply for granted (owner names as 2-byte pointers, A records in the
// order of the MX records). The walk never reads outside the datagram and
// never follows compression pointers without end, whatever the bytes.
#pragma once

#include <cstdint>
#include <string>

namespace kv {

// One found mail exchanger. The lookup gives a contiguous array of these.
struct MXRecord {
    uint16_t Count;       // records in the array, the same in every entry
    uint16_t Preference;  // lower is preferred
    char Name[256];       // NUL-ended host name
    char Address[256];    // NUL-ended dotted IPv4 text from the A records, or empty
};
static_assert(sizeof(MXRecord) == 516);

inline constexpr int32_t kDnsBufferSize = 2048;  // the query and the answer travel in it
inline constexpr uint16_t kDnsTypeMX = 15;

// Asks server (IPv4 text, or a name) at port (0: the "nameserver" service,
// else 53) for name of the given type, and reads one datagram into buffer,
// which holds kDnsBufferSize bytes. Returns the bytes received; 0 no answer
// in timeoutSeconds; -2 the server's name can't be resolved; -3 no socket;
// -4 the query can't be sent (also: a name too long for the buffer); -5
// the read failed.
int32_t QueryDNS(const char* name, const char* server, int32_t port, uint16_t type, uint8_t* buffer,
                 int32_t timeoutSeconds);

// Writes the question for name into buffer (kDnsBufferSize bytes): the fixed
// identifier 4575, RD only, one question, QTYPE type, QCLASS 1. Returns its
// length, or 0 when the name does not fit.
int32_t BuildDnsQuery(const char* name, uint16_t type, uint8_t* buffer);

// Walks an answer of length bytes. Returns the MX records sorted by
// preference (equal preferences keep the server's order; free with
// ReleaseMX), or null. resolved is written only when the walk ends: 1 for
// records found, or for a clean answer without any (rcode 0), 0 for an
// answer without records and another rcode; an answer whose only record is a
// CNAME leaves it as it was.
MXRecord* ParseMX(const uint8_t* answer, int32_t length, int32_t& resolved);

// Asks server1 for the MX records of name, once more on silence, then
// server2 (when given) the same way; singleAttempt asks server1 once only.
// At most 4 datagrams, each waiting timeoutSeconds. With allowHostFallback, a
// domain without MX records whose own name has an address gives one empty
// record (Count 1) that stands for the host itself. port is 53 but for tests.
MXRecord* LookupMX(const char* name, const char* server1, const char* server2, bool allowHostFallback,
                   bool singleAttempt, int32_t timeoutSeconds, int32_t& resolved, int32_t port = 53);

void ReleaseMX(MXRecord* records);

// The host name of a dotted IPv4 address through the resolver; false when
// the text is no IPv4 address (*readable false then) or no name is known.
bool ReverseLookupIPv4(const char* dotted, std::string& name, bool* readable);

}  // namespace kv
