// Dot-stuffing, the transparency of the mail protocols' data: a line that
// starts with a dot travels with one more, and a line of one dot ends the
// data (RFC 5321 4.5.2, RFC 1939 3). Both directions work on the text where
// it stands: receiving writes each byte once into its destination, sending
// cuts the text into pieces of itself and adds the extra dots between them.
#pragma once

#include <cstdint>

#include "foundation/find.h"

namespace kv {

// Copies data[0, size) to out (room for size bytes) with each "\r\n.." read
// as "\r\n.": a line start is known by the CRLF in front of it, so the
// caller starts data just after a line break it has already passed. out may
// be data itself. Returns the bytes written.
int32_t Unstuff(const char* data, int32_t size, char* out);

// Cuts data[0, size) into the pieces that go on the wire with the stuffing
// added: each piece is a part of data, at most max_piece bytes, or the one
// byte "." that doubles the dot of a line start; data starts a line. Calls
// send(piece, length) in order and stops at the first false. True when all
// went.
template <class Send>
bool ForEachStuffedPiece(const char* data, int32_t size, int32_t max_piece, Send&& send) {
    const char* at = data;
    const char* end = data + size;
    bool line_start_dot = size > 0 && data[0] == '.';
    while (at < end) {
        if (line_start_dot && !send(".", 1)) return false;
        // Up to and through the next "\r\n." (its dot then starts the next piece).
        const char* hit = FindBytes(at, size_t(end - at), "\r\n.", 3);
        const char* stop = hit ? hit + 2 : end;
        line_start_dot = hit != nullptr;
        while (at < stop) {
            int32_t n = stop - at < max_piece ? int32_t(stop - at) : max_piece;
            if (!send(at, n)) return false;
            at += n;
        }
    }
    return true;
}

}  // namespace kv
