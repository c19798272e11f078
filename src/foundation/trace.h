// The diagnostic trace: a running record of what the code does, one line per
// step, appended to /tmp/korvane/korvane_debug.txt. It has no switch: it is
// written only while that directory exists, belongs to the current user and
// is writable by nobody else; otherwise every call returns at once (the check
// is remembered for up to a second). The file is created with mode 0600 and
// never through a symbolic link.
//
// A line reads "hh:mm:ss <thread id in hex>\t<text>\r\n".
//
// Two patterns: Trace("fixed text"), or a composed line:
//   TraceBegin(); TraceAppend("nPartCodePage="); TraceAppend(number); Trace();
// The line buffer holds 2048 bytes per thread; whatever does not fit is cut.
// Nothing here ever fails visibly.
#pragma once

#include <cstdint>

namespace kv {

void TraceBegin();
void TraceAppend(const char* text);
void TraceAppendInt(int64_t value);  // decimal, for composed lines
void TraceAppendWide(const char16_t* text);
// text null: the composed line. length < 0: the C-string length of text.
void Trace(const char* text = nullptr, int32_t length = -1);
void TraceWide(const char16_t* text);

// Tests point the trace at another directory (null restores the default).
void TraceSetDirectoryForTesting(const char* directory);

}  // namespace kv
