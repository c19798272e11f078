// A deliberately plain model of the form walk: every search starts afresh
// with std::string_view::find, as the rules read, with no memory between
// parts. Slow on big bodies, obvious on small ones; the unit tests and the
// fuzz target hold the real walk to it.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kv::reference {

struct FormFile {
    std::string name, value, filename, content_type;
};

struct Form {
    bool ok = false;
    std::vector<std::pair<std::string, std::string>> elements;  // in order of first appearance
    std::vector<FormFile> files;
};

// Names are one entry when they have the same length and differ only in
// ASCII case.
inline bool SameName(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i) {
        auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? char(c + 32) : c; };
        if (lower(a[i]) != lower(b[i])) return false;
    }
    return true;
}

inline Form ParseForm(std::string_view body) {
    Form form;
    const long size = long(body.size());
    auto find = [&](std::string_view needle, long from) -> long {
        if (needle.empty() || from > size) return -1;
        size_t at = body.find(needle, size_t(from));
        return at == std::string_view::npos ? -1 : long(at);
    };
    auto text = [&](long from, long end) {
        from = std::min(from, size);
        return end > from ? std::string(body.substr(size_t(from), size_t(end - from))) : std::string();
    };
    auto quoted = [&](long mark, long mark_size) {
        long quote = find("\"", mark + mark_size);
        return text(mark + mark_size, quote < 0 ? size : quote);
    };

    long first_line = find("\r\n", 0);
    if (first_line < 0) return form;
    form.ok = true;
    std::string_view boundary = body.substr(0, size_t(first_line));

    long position = 0;
    for (;;) {
        long at = find(boundary, position);
        if (at < 0) break;
        long start = std::min(at + long(boundary.size()) + 2, size);
        position = start;
        long next = find(boundary, start);
        if (next < 0) break;
        long length = next - 2 - start;

        long file_mark = find("filename=\"", start);
        bool is_file = file_mark > start && file_mark + 10 <= start + length;
        long name_mark = find("name=\"", start);
        long blank = find("\r\n\r\n", start);
        if (name_mark < 0 || blank < 0) continue;
        std::string name = quoted(name_mark, 6);
        std::string value = text(blank + 4, start + length);

        if (!is_file) {
            auto it = std::find_if(form.elements.begin(), form.elements.end(),
                                   [&](const auto& e) { return SameName(e.first, name); });
            if (it == form.elements.end())
                form.elements.emplace_back(name, value);
            else
                it->second += "," + value;
            continue;
        }
        FormFile file{name, value, quoted(file_mark, 10), ""};
        size_t cut = file.filename.rfind('\\');
        if (cut != std::string::npos) file.filename.erase(0, cut + 1);
        long type_mark = find("Content-Type:", start);
        if (type_mark >= 0) {
            long line_end = find("\r\n", type_mark + 13);
            file.content_type = text(type_mark + 14, line_end < 0 ? size : line_end);
        }
        if (file.filename.empty()) continue;
        if (std::none_of(form.files.begin(), form.files.end(),
                         [&](const FormFile& f) { return SameName(f.name, file.name); }))
            form.files.push_back(file);
    }
    return form;
}

}  // namespace kv::reference
