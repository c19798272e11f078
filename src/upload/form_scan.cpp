#include "upload/form_scan.h"

#include <cstring>

namespace kv::upload {

namespace {

constexpr std::string_view kNameMark = "name=\"";
constexpr std::string_view kFilenameMark = "filename=\"";
constexpr std::string_view kTypeMark = "Content-Type:";
constexpr std::string_view kBlankLine = "\r\n\r\n";

}  // namespace

int32_t ForwardFinder::Find(int32_t from) {
    if (from < 0) from = 0;
    if (asked_ >= 0 && from >= asked_ && (found_ < 0 || found_ >= from)) return found_;
    asked_ = from;
    int32_t n = int32_t(needle_.size());
    if (n == 0 || from > size_ - n) return found_ = -1;
    const void* hit = memmem(data_ + from, size_t(size_ - from), needle_.data(), size_t(n));
    found_ = hit ? int32_t(static_cast<const char*>(hit) - data_) : -1;
    return found_;
}

FormScan::FormScan(const char* data, int32_t size, int32_t boundary_size)
    : body_(std::make_shared<const std::string>(data, size_t(size))),
      boundary_size_(boundary_size),
      boundary_(body_->data(), size, std::string_view(body_->data(), size_t(boundary_size))),
      name_mark_(body_->data(), size, kNameMark),
      name_quote_(body_->data(), size, "\""),
      filename_mark_(body_->data(), size, kFilenameMark),
      filename_quote_(body_->data(), size, "\""),
      type_mark_(body_->data(), size, kTypeMark),
      type_end_(body_->data(), size, "\r\n"),
      blank_line_(body_->data(), size, kBlankLine) {}

bstring FormScan::View(Span span) const {
    bstring view;
    int32_t start = span.start < size() ? span.start : size();
    view.borrow(data() + start, span.size());
    return view;
}

// name="..." and filename="..." end at the next double quote; an unclosed
// one runs to the end of the body.
bool FormScan::NameAt(int32_t start, Span& name) {
    int32_t mark = name_mark_.Find(start);
    if (mark < 0) return false;
    int32_t from = mark + int32_t(kNameMark.size());
    int32_t quote = name_quote_.Find(from);
    name = {from, quote < 0 ? size() : quote};
    return true;
}

bool FormScan::FilenameAt(int32_t start, Span& filename) {
    int32_t mark = filename_mark_.Find(start);
    if (mark < 0) return false;
    int32_t from = mark + int32_t(kFilenameMark.size());
    int32_t quote = filename_quote_.Find(from);
    filename = {from, quote < 0 ? size() : quote};
    return true;
}

// "Content-Type: text/plain\r\n": 14 bytes skip the mark and its blank. The
// line end is looked for from the end of the mark, so an empty header gives
// an empty type rather than the next line.
bool FormScan::ContentTypeAt(int32_t start, Span& type) {
    int32_t mark = type_mark_.Find(start);
    if (mark < 0) return false;
    int32_t line_end = type_end_.Find(mark + int32_t(kTypeMark.size()));
    int32_t from = mark + int32_t(kTypeMark.size()) + 1;
    if (from > size()) from = size();
    type = {from, line_end < 0 ? size() : line_end};
    return true;
}

int32_t FormScan::ValueStartAt(int32_t start) {
    int32_t blank = blank_line_.Find(start);
    return blank < 0 ? -1 : blank + int32_t(kBlankLine.size());
}

}  // namespace kv::upload
