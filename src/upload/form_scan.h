// The searches of one multipart/form-data walk over one body.
//
// The parts are found by plain searches for the boundary and for a few marks
// (name=", filename=", Content-Type:, the blank line), and the searches for
// the marks run on to the end of the whole body, not only of the part. Done
// naively, a body of many small parts would be scanned once per part. Every
// search of a walk starts at or after the start of the previous search of the
// same kind, so each kind keeps its last answer and scans each byte about
// once: the walk is linear in the body whatever the bytes are.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "foundation/bstring.h"

namespace kv::upload {

// The first occurrence of a needle at or after a position, remembering the
// last answer. Asking with a start before an earlier one is allowed but
// searches again. An empty needle is never found.
class ForwardFinder {
public:
    ForwardFinder(const char* data, int32_t size, std::string_view needle)
        : data_(data), size_(size), needle_(needle) {}

    // Position of the first occurrence at or after from, or -1.
    int32_t Find(int32_t from);

private:
    const char* data_;
    int32_t size_;
    std::string_view needle_;
    int32_t asked_ = -1;  // the start of the last search; -1: none yet
    int32_t found_ = -1;  // its answer
};

// A window [start, end) of the body; empty when end <= start.
struct Span {
    int32_t start = 0;
    int32_t end = 0;
    int32_t size() const { return end > start ? end - start : 0; }
};

// One body under walk. The bytes are copied once, into a buffer shared by
// every object the walk makes, whose fields are views into it: a part may
// borrow its name or type from far behind itself, and sharing keeps the
// memory of the walk linear in the body.
class FormScan {
public:
    // The boundary is the first boundary_size bytes of the body.
    FormScan(const char* data, int32_t size, int32_t boundary_size);
    FormScan(const FormScan&) = delete;
    FormScan& operator=(const FormScan&) = delete;

    const char* data() const { return body_->data(); }
    int32_t size() const { return int32_t(body_->size()); }
    // Keeps the bytes alive; objects made by the walk hold one.
    const std::shared_ptr<const std::string>& body() const { return body_; }
    // A view of the window (nCapacity -1), valid while body() lives.
    bstring View(Span span) const;

    // The boundary at or after from, or -1.
    int32_t FindBoundary(int32_t from) { return boundary_.Find(from); }
    int32_t boundary_size() const { return boundary_size_; }

    // The marks from start through the end of the body. Each answers -1
    // when the mark is not there.
    // name="...": the name, up to the next double quote or the end of body.
    bool NameAt(int32_t start, Span& name);
    // filename="...": where the mark stands, and the text up to the next
    // double quote or the end of the body.
    int32_t FilenameMarkAt(int32_t start) { return filename_mark_.Find(start); }
    bool FilenameAt(int32_t start, Span& filename);
    // Content-Type: the text from 14 bytes behind the mark (the mark and one
    // blank) up to the next CR LF or the end of the body.
    bool ContentTypeAt(int32_t start, Span& type);
    // The first byte behind the first "\r\n\r\n" from start, or -1.
    int32_t ValueStartAt(int32_t start);

private:
    std::shared_ptr<const std::string> body_;
    int32_t boundary_size_;
    ForwardFinder boundary_;
    ForwardFinder name_mark_, name_quote_;
    ForwardFinder filename_mark_, filename_quote_;
    ForwardFinder type_mark_, type_end_;
    ForwardFinder blank_line_;
};

}  // namespace kv::upload
