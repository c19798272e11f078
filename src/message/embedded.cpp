// Message directories: an HTML body with its attachments written to disk and
// its cid: and Content-Location references pointed at those files; and the
// way in, local file references of an imported HTML file made into cid:
// references.
#include "message/embedded.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "codecs/digest.h"
#include "codecs/mediatype.h"
#include "message/message.h"
#include "platform/dir_file.h"
#include "platform/directories.h"

namespace kv {

namespace {

VARIANT_BOOL Bool(bool b) { return b ? VARIANT_TRUE : VARIANT_FALSE; }

bool is_sep(char16_t c) { return c == u'/' || c == u'\\'; }
bool is_white(char16_t c) { return c == u' ' || c == u'\t' || c == u'\r' || c == u'\n' || c == u'\f'; }

wbstring number_text(int32_t n) {
    bstring digits;
    digits.append_int(n, 10);
    wbstring wide;
    wide.import_bstring(digits, 1252);
    return wide;
}

// The key of an attachment in a pass: its content id without blanks around
// it and one pair of <> or quotes, or its location, trimmed.
wbstring attachment_key(const CAttachment& a, bool by_id) {
    wbstring key(by_id ? a.m_wsContentID : a.m_wsContentLocation);
    key.trim();
    if (by_id) key.strip_pairs(u"<>\"\"");
    return key;
}

// Whether `key` at pos lies inside a URL that the first pass already wrote.
bool inside_written_url(const wbstring& lower, int32_t pos, const wbstring& key,
                        const wbstring_vector& urls) {
    for (const wbstring& url : urls) {
        if (url.nSize < key.nSize) continue;
        wbstring url_lower(url);
        url_lower.to_lower();
        int32_t at = url_lower.find(key);
        if (at < 0 || at > pos || pos - at + url.nSize > lower.nSize) continue;
        if (lower.equals_at(pos - at, url.nSize, url_lower)) return true;
    }
    return false;
}

}  // namespace

wbstring& UrlEscapeName(const wbstring& name, wbstring& result) {
    result.nSize = 0;
    if (name.nSize <= 0) return result;
    bstring bytes;
    wbstring copy(name);
    copy.export_bstring(bytes, 65001);
    static const char digits[] = "0123456789abcdef";
    for (int32_t i = 0; i < bytes.nSize; ++i) {
        unsigned char c = static_cast<unsigned char>(bytes.pData[i]);
        if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
            c == '-' || c == '_') {
            result += char16_t(c);
            continue;
        }
        result += u'%';
        if (c >= 16) result += char16_t(digits[c >> 4]);
        result += char16_t(digits[c & 15]);
    }
    return result;
}

wbstring& MakeContentId(int32_t counter, wbstring& result) {
    result.nSize = 0;
    for (int i = 0; i < 10; ++i) result += char16_t(u'0' + (std::rand() % 32768) * 10 / 32768);
    result += u'-';
    result.append(number_text(counter));
    return result;
}

void RewriteLocalObjects(wbstring& result, wbstring_vector& ids, wbstring_vector& paths,
                         const wbstring& html, const wbstring& base_dir, int32_t codepage) {
    const int32_t n = html.nSize;
    int64_t want = int64_t(result.nSize) + int64_t(n) * 4 / 3 + 1024;
    if (want < INT32_MAX - 1) result.reserve(int32_t(want));
    wbstring lower(html);
    lower.to_lower();
    const char16_t* l = lower.pData;
    int32_t copied = 0, counter = 1;
    auto token_end = [&](int32_t i) {
        while (i < n && !is_white(l[i]) && l[i] != u'=' && l[i] != u'>') {
            if (l[i] == u'"' || l[i] == u'\'') {
                // A quoted run: a ">" inside it ends nothing.
                char16_t q = l[i];
                int32_t close = i + 1;
                while (close < n && l[close] != q) ++close;
                i = close < n ? close + 1 : n;
                continue;
            }
            ++i;
        }
        return i;
    };
    int32_t i = 0;
    while (i < n) {
        if (l[i] != u'<' || i + 1 >= n || l[i + 1] < u'a' || l[i + 1] > u'z') {
            ++i;
            continue;
        }
        int32_t name_start = i + 1, name_end = token_end(name_start);
        wbstring tag(l + name_start, name_end - name_start);
        i = name_end;
        while (i < n && l[i] != u'>') {
            while (i < n && (is_white(l[i]) || l[i] == u'=')) ++i;
            if (i >= n || l[i] == u'>') break;
            int32_t attr_start = i, attr_end = token_end(i);
            i = attr_end;
            int32_t j = i;
            while (j < n && is_white(l[j])) ++j;
            if (attr_end == attr_start) {
                ++i;
                continue;
            }
            if (j >= n || l[j] != u'=') continue;
            ++j;
            while (j < n && is_white(l[j])) ++j;
            int32_t value_start = j, value_end = token_end(j);
            i = value_end;
            wbstring attr(l + attr_start, attr_end - attr_start);
            bool reference = attr.equals(u"src") || attr.equals(u"background") ||
                             (attr.equals(u"lowsrc") && (tag.equals(u"img") || tag.equals(u"input"))) ||
                             (attr.equals(u"href") && tag.equals(u"link"));
            if (!reference || value_end <= value_start) continue;

            int32_t inner_start = value_start, inner_end = value_end;
            char16_t quote = html.pData[value_start];
            if ((quote == u'"' || quote == u'\'') && inner_end - inner_start >= 2 &&
                html.pData[inner_end - 1] == quote) {
                ++inner_start;
                --inner_end;
            }
            wbstring value(html.pData + inner_start, inner_end - inner_start);
            if (value.find(u'\\') < 0) {
                // %XX escapes are bytes of the page's code page.
                wbstring decoded;
                bstring run;
                for (int32_t k = 0; k < value.nSize;) {
                    int32_t byte = -1;
                    if (value.pData[k] == u'%' && k + 2 < value.nSize) {
                        char hex[3] = {char(value.pData[k + 1] & 0x7F), char(value.pData[k + 2] & 0x7F), 0};
                        char* stop = nullptr;
                        long v = std::strtol(hex, &stop, 16);
                        if (stop == hex + 2 && v > 0 && value.pData[k + 1] < 128 && value.pData[k + 2] < 128)
                            byte = int32_t(v);
                    }
                    if (byte > 0) {
                        run += char(byte);
                        k += 3;
                        continue;
                    }
                    if (run.nSize > 0) {
                        decoded.append_import(run, codepage);
                        run.nSize = 0;
                    }
                    decoded += value.pData[k++];
                }
                if (run.nSize > 0) decoded.append_import(run, codepage);
                value = std::move(decoded);
            }
            if (value.nSize >= 8 && value.equals_prefix(u"file:///", 8)) {
                wbstring rest(value.pData + 8, value.nSize - 8);
                value = std::move(rest);
            }
            bool absolute = (value.nSize > 0 && is_sep(value.pData[0])) ||
                            (value.nSize > 1 && value.pData[1] == u':' &&
                             ((value.pData[0] >= u'a' && value.pData[0] <= u'z') ||
                              (value.pData[0] >= u'A' && value.pData[0] <= u'Z')));
            wbstring full;
            if (!absolute) full.append(base_dir);
            full.append(value);

            const wbstring* id = nullptr;
            for (size_t k = 0; k < paths.size() && k < ids.size(); ++k) {
                if (paths[k].nSize == full.nSize &&
                    (full.nSize == 0 || std::equal(full.pData, full.pData + full.nSize, paths[k].pData))) {
                    id = &ids[k];
                    break;
                }
            }
            if (!id && full.nSize > 0 && platform::RegularFileExists(full)) {
                wbstring made;
                MakeContentId(counter++, made);
                ids.push_back(std::move(made));
                paths.push_back(std::move(full));
                id = &ids.back();
            }
            if (!id) continue;
            result.append(html.pData + copied, value_start - copied);
            result.append(u"\"cid:");
            result.append(*id);
            result += u'"';
            copied = value_end;
        }
        if (i < n) ++i;  // the ">"
    }
    if (copied < n) result.append(html.pData + copied, n - copied);
}

// ---- the message's members ---------------------------------------------------------------

HRESULT CMessage::GetBodyWithEmbeddedObjects(BSTR temp_dir, BSTR dir_name, IDispatch* censor,
                                             BSTR* out) {
    BSTR empty = SysAllocString(u"");
    HRESULT hr = GetBodyWithEmbeddedObjectsEx(temp_dir, empty, dir_name, 0, 0, censor, out);
    SysFreeString(empty);
    return hr;
}

HRESULT CMessage::GetBodyWithEmbeddedObjectsEx(BSTR temp_dir_text, BSTR virtual_text, BSTR dir_text,
                                               int32_t mode, int32_t, IDispatch*, BSTR* out) {
    m_wsMessageDirectoryPath.nSize = 0;
    wbstring empty;
    *out = empty.to_bstr();

    wbstring dir_name;
    dir_name.assign_bstr(dir_text);
    if (dir_name.nSize <= 0) {
        // Named by the digest, so two fetches of one message share it.
        EnsureRawBody();
        char hex[33];
        Md5Hex(hex, m_bsRawBody.pData, m_bsRawBody.nSize);
        bstring digest(hex, 32);
        dir_name.import_bstring(digest, 1252);
    }

    wbstring local;
    local.assign_bstr(temp_dir_text);
    if (local.nSize <= 0) local = platform::TempDirectory();
    if (local.nSize <= 0) return S_OK;
    if (!is_sep(local.last_unit())) local += u'/';
    local.append(dir_name);
    if (!is_sep(local.last_unit())) local += u'/';

    wbstring virtual_path;
    virtual_path.assign_bstr(virtual_text);
    wbstring prefix;
    if (virtual_path.nSize <= 0) {
        prefix = local;
    } else {
        prefix = virtual_path;
        switch (mode) {
            case 0:
                if (!is_sep(prefix.last_unit())) prefix += u'/';
                prefix.append(dir_name);
                break;
            case 1:
            case 2:
            case 4:
                if (prefix.last_unit() != u'/') prefix += u'/';
                prefix.append(dir_name);
                prefix += u'/';
                break;
            case 3:
                if (prefix.last_unit() != u'?') prefix += u'&';
                prefix.append(u"dir_id=");
                prefix.append(dir_name);
                prefix.append(u"&file_id=");
                break;
            default:
                break;
        }
    }

    bool to_make = false;
    switch (platform::GetPathKind(local)) {
        case platform::PathKind::kNone:
            to_make = true;
            break;
        case platform::PathKind::kFile:
            return S_OK;
        case platform::PathKind::kDirectory:
            m_wsMessageDirectoryPath = local;
            break;
    }

    wbstring body(m_wsBodyText);
    if (m_nBodyFormat != 1) {
        SysFreeString(*out);
        *out = body.to_bstr();
        return S_OK;
    }

    wbstring_vector urls;
    const auto& attachments = m_pAttachments->m_coll;
    for (int pass = 0; pass < 2; ++pass) {
        const bool by_id = pass == 0;
        std::vector<ordered_int> order;  // index, key length
        for (size_t k = 0; k < attachments.size(); ++k)
            order.push_back({int32_t(k), attachment_key(*attachments[k], by_id).nSize});
        // Longest key first, so that a key inside a longer one cannot spoil it.
        std::stable_sort(order.begin(), order.end(),
                         [](const ordered_int& a, const ordered_int& b) { return a.second > b.second; });
        wbstring lower(body);
        lower.to_lower();
        bool changed = false;
        for (const ordered_int& entry : order) {
            if (entry.second <= 0) continue;
            CAttachment& a = *attachments[size_t(entry.first)];
            if (to_make) {
                if (!platform::MakeDirectory(local)) {
                    SysFreeString(*out);
                    *out = empty.to_bstr();
                    return S_OK;
                }
                to_make = false;
            }
            m_wsMessageDirectoryPath = local;
            if (changed) {
                lower = body;
                lower.to_lower();
                changed = false;
            }

            const int32_t number = entry.first + 1;
            wbstring name;
            if (mode == 0 || mode == 1 || mode == 4) name = a.m_wsFilename;
            // A name that is no plain file name could leave the directory:
            // such a file is numbered instead.
            if (name.nSize > 0 && !platform::IsPlainFileName(name)) name.nSize = 0;
            if ((name.nSize <= 0 && mode >= 0 && mode <= 4) || mode == 4) {
                wbstring ext;
                int32_t dot = a.m_wsFilename.rfind(u'.');
                if (dot >= 0 && a.m_wsFilename.find(u'/') < 0) {
                    ext.append(a.m_wsFilename.pData + dot, a.m_wsFilename.nSize - dot);
                } else {
                    bstring type(a.m_bsContentType);
                    type.to_lower();
                    wbstring found;
                    GetExtensionFromMediaType(found, type, false);
                    if (found.nSize > 0) {
                        ext += u'.';
                        ext.append(found);
                    }
                }
                wbstring numbered;
                if (mode == 4 && name.nSize > 0) {
                    int32_t name_dot = name.rfind(u'.');
                    numbered.append(name.pData, name_dot >= 0 ? name_dot : name.nSize);
                    numbered += u'[';
                    numbered.append(number_text(number));
                    numbered += u']';
                } else {
                    numbered.append(number_text(number));
                }
                numbered.append(ext);
                name = std::move(numbered);
                if (!platform::IsPlainFileName(name)) name = number_text(number);
            }
            platform::WriteFileInDirectory(local, name, a.m_bsContent.pData,
                                           size_t(a.m_bsContent.nSize > 0 ? a.m_bsContent.nSize : 0));

            wbstring key = attachment_key(a, by_id);
            key.to_lower();
            wbstring url(prefix);
            if (mode == 0) {
                if (!is_sep(prefix.last_unit())) url += u'/';
                url.append(name);
            } else {
                wbstring escaped;
                url.append(UrlEscapeName(name, escaped));
            }

            wbstring out_body;
            out_body.reserve(body.nSize + body.nSize / 4);
            int32_t last = 0, search = 0;
            while (search < lower.nSize) {
                int32_t pos = lower.find(search, key);
                if (pos < 0) break;
                search = pos + key.nSize;
                if (!by_id && inside_written_url(lower, pos, key, urls)) continue;
                bool counts = key.nSize > 7 || (key.nSize >= 3 && key.find(u'.') >= 0);
                int32_t start = pos, b = pos;
                while (b > 0 && is_white(lower.pData[b - 1])) --b;
                if (b > 0 && lower.pData[b - 1] == u':') {
                    --b;
                    while (b > 0 && is_white(lower.pData[b - 1])) --b;
                    if (b >= 3 && lower.equals_at(b - 3, 3, u"cid", 3)) {
                        start = b - 3;
                        counts = true;
                    }
                }
                if (!counts || start < last) continue;
                out_body.append(body.pData + last, start - last);
                char16_t before = start > 0 ? body.pData[start - 1] : 0;
                bool quote = before != u'"' && before != u'\'';
                if (quote) out_body += u'"';
                out_body.append(url);
                if (quote) out_body += u'"';
                last = pos + key.nSize;
                if (by_id) urls.push_back(url);
            }
            if (last > 0) {
                out_body.append(body.pData + last, body.nSize - last);
                body = std::move(out_body);
                changed = true;
            }
        }
    }
    SysFreeString(*out);
    *out = body.to_bstr();
    return S_OK;
}

HRESULT CMessage::RemoveMessageDirectory(BSTR path_text, VARIANT_BOOL content_only, VARIANT_BOOL* out) {
    wbstring path;
    path.assign_bstr(path_text);
    if (path.nSize <= 0) path = m_wsMessageDirectoryPath;
    if (path.nSize <= 0) {
        *out = VARIANT_TRUE;
        return S_OK;
    }
    *out = Bool(platform::GetPathKind(path) == platform::PathKind::kDirectory &&
                platform::RemoveDirectoryTree(path, content_only != 0));
    return S_OK;
}

HRESULT CMessage::MessageDirectoryExists(BSTR, VARIANT_BOOL* out) {
    // The stored path is tested, whatever was passed: callers rely on that.
    *out = Bool(m_wsMessageDirectoryPath.nSize > 0 &&
                platform::GetPathKind(m_wsMessageDirectoryPath) == platform::PathKind::kDirectory);
    return S_OK;
}

}  // namespace kv
