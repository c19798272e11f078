// Substring search for the scans that run over whole messages (boundaries,
// dot-stuffed line starts). A line break every few dozen bytes makes the
// library's general search slow for needles that begin with one; here 16
// positions at a time are filtered by the needle's first and last byte, so
// only rare candidates reach a full compare.
#pragma once

#include <cstddef>

namespace kv {

// The first occurrence of needle[0, n) in hay[0, length), or null. An empty
// needle is found at hay.
const char* FindBytes(const char* hay, size_t length, const char* needle, size_t n);

}  // namespace kv
