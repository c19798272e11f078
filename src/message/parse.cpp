// Parsing: the raw MIME text of a message to its decoded side.
//
// The multipart walk works on views into m_bsRawBody: a part is copied only
// when it is decoded. DecodePart sorts every leaf into text parts and
// attachments; only afterwards does RawBodyToMessage choose the body, the
// alternative body and the special body from the collected text parts.
#include "message/parse.h"

#include <cstring>
#include <string>
#include <unordered_map>

#include "codecs/charset.h"
#include "codecs/encoding.h"
#include "codecs/html_to_plain.h"
#include "codecs/mediatype.h"
#include "codecs/mimeword.h"
#include "foundation/find.h"
#include "foundation/trace.h"
#include "message/message.h"

namespace kv {

struct ParseBudget {
    int32_t depth = 0;            // multipart levels above the part at hand
    int32_t parts_left = kMaxParts;
};

namespace {

// Appends with room to spare, so that a value that grows line by line (a
// header repeated thousands of times, thousands of glued text parts) costs
// linear time; bstring itself allocates exactly.
template <class S, class U>
void append_growing(S& s, const U* data, int32_t n) {
    if (n <= 0) return;
    if (s.nSize < 0) s.nSize = 0;
    int64_t need = int64_t(s.nSize) + n;
    if (need > INT32_MAX - 1) return;
    if (need > s.nCapacity) {
        int64_t room = int64_t(s.nCapacity > 0 ? s.nCapacity : 0) * 2;
        if (room < need) room = need;
        if (room > INT32_MAX - 1) room = INT32_MAX - 1;
        s.reserve(int32_t(room));
    }
    s.append(data, n);
}
void append_growing(bstring& s, const bstring& other) { append_growing(s, other.pData, other.nSize); }
void append_growing(wbstring& s, const char16_t* text) {
    int32_t n = 0;
    while (text[n]) ++n;
    append_growing(s, text, n);
}
void append_growing(wbstring& s, const wbstring& other) { append_growing(s, other.pData, other.nSize); }

// Linear search whatever the needle (bstring's find compares at every
// candidate, quadratic for a long boundary of one repeated byte).
int32_t find_bytes(const bstring& hay, int32_t start, const char* needle, int32_t n) {
    if (start < 0 || n <= 0 || hay.nSize - start < n) return -1;
    const char* hit = FindBytes(hay.pData + start, size_t(hay.nSize - start), needle, size_t(n));
    return hit ? int32_t(hit - hay.pData) : -1;
}

bool is_blank_or_tab(char c) { return c == ' ' || c == '\t'; }
bool is_line_break(char c) { return c == '\r' || c == '\n'; }

bool is_header_name_char(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '$' || c == '_';
}

std::string lower_key(const char* p, int32_t n) {
    std::string key(p, size_t(n));
    for (char& c : key)
        if (c >= 'A' && c <= 'Z') c = char(c + 32);
    return key;
}

void trace_bytes(const bstring& text) { Trace(text.pData ? text.pData : "", text.nSize); }

void trace_number(const char* label, int64_t value) {
    TraceBegin();
    TraceAppend(label);
    TraceAppendInt(value);
    Trace();
}

// A view of [start, end) of owner.
bstring view_of(const bstring& owner, int32_t start, int32_t end) {
    bstring v;
    v.borrow(owner.pData + start, end - start);
    return v;
}

}  // namespace

// ---- the multipart split ------------------------------------------------------------------

void SplitMultipart(std::vector<bstring>& result, const bstring& body, const bstring& boundary,
                    int32_t max_parts) {
    result.clear();
    if (boundary.nSize <= 0 || body.nSize <= 0 || max_parts < 1) return;
    const char* p = body.pData;
    const int32_t size = body.nSize;
    const bool boundary_ends_in_dash = boundary.last_unit() == '-';
    int32_t search = 0, start = 0;
    bool finished = false;
    while (!finished) {
        int32_t pos = find_bytes(body, search, boundary.pData, boundary.nSize);
        if (pos < 0) break;
        int32_t lead = pos;
        while (lead > 0 && p[lead - 1] == '-') --lead;
        int32_t after = pos + boundary.nSize;
        if (lead > 1) {
            if (p[lead - 2] != '\r' || p[lead - 1] != '\n') {
                search = after;
                continue;
            }
            lead -= 2;
        }
        bool closing = false;
        if (after < size - 1 && p[after] == '-' && p[after + 1] == '-') {
            closing = !boundary_ends_in_dash;
            while (after < size && p[after] == '-') ++after;
        }
        while (after < size - 1 && is_blank_or_tab(p[after])) ++after;
        if (after < size - 1 && (!is_line_break(p[after]) || !is_line_break(p[after + 1]))) {
            // Text behind the boundary string: no boundary line. A rejected
            // closing line does not end the walk, so the part before it stays.
            search = after;
            continue;
        }
        if (start > 0 && lead > start) {
            if (int32_t(result.size()) + 1 >= max_parts) break;  // the rest goes whole
            result.push_back(view_of(body, start, lead));
        }
        finished = closing;
        search = start = after;
    }
    if (!finished && start < size) result.push_back(view_of(body, start, size));
}

// ---- header sections ------------------------------------------------------------------------

void ParseHeaderSection(CMIMEHeaders& headers, const bstring& text) {
    // First record of each name, by lower-case name: the collection may be
    // long, and a linear lookup per line would make it quadratic.
    std::unordered_map<std::string, CMIMEHeader*> first;
    for (CMIMEHeader* h : headers.m_coll)
        first.emplace(lower_key(h->m_bsKey.pData, h->m_bsKey.nSize), h);

    CMIMEHeader* current = nullptr;
    const char* p = text.pData;
    int32_t pos = 0;
    while (pos < text.nSize) {
        int32_t eol = find_bytes(text, pos, "\r\n", 2);
        int32_t line_end = eol < 0 ? text.nSize : eol;
        const char* line = p + pos;
        int32_t n = line_end - pos;
        pos = eol < 0 ? text.nSize : eol + 2;
        if (n == 0) continue;

        if (is_blank_or_tab(line[0])) {
            if (!current) continue;
            const bstring& key = current->m_bsKey;
            if (key.equals("Content-Disposition") || key.equals("Content-Type")) {
                append_growing(current->m_bsRawValue, "\r\n", 2);
                append_growing(current->m_bsRawValue, line, 1);
            } else if (key.equals("Received")) {
                append_growing(current->m_bsRawValue, " ", 1);
            } else if (line[0] == ' ') {
                append_growing(current->m_bsRawValue, " ", 1);
            }
            append_growing(current->m_bsRawValue, line + 1, n - 1);
            append_growing(current->m_bsWireValue, "\r\n", 2);
            append_growing(current->m_bsWireValue, line, n);
            continue;
        }

        const void* colon_hit = std::memchr(line, ':', size_t(n));
        if (!colon_hit) continue;
        int32_t colon = int32_t(static_cast<const char*>(colon_hit) - line);
        if (colon == 0) continue;
        bool valid = true;
        for (int32_t i = 0; i < colon && valid; ++i) valid = is_header_name_char(line[i]);
        if (!valid) continue;
        int32_t value_start = colon + 1;
        if (value_start < n && is_blank_or_tab(line[value_start])) ++value_start;
        bstring name(line, colon);
        const char* value = line + value_start;
        int32_t value_size = n - value_start;

        std::string key = lower_key(line, colon);
        auto known = first.find(key);
        if (known == first.end() || key == "received" || key == "content-type" ||
            key == "content-transfer-encoding") {
            CMIMEHeader* record = CMIMEHeader::New();
            record->m_bsKey.assign(name);
            record->m_bsRawValue.assign(value, value_size);
            record->m_bsWireValue.assign(value, value_size);
            headers.Add(record);
            if (known == first.end()) first.emplace(std::move(key), record);
            current = record;
            continue;
        }
        current = known->second;
        if (key == "to" || key == "cc") {
            append_growing(current->m_bsRawValue, ", ", 2);
        } else {
            append_growing(current->m_bsRawValue, "\r\n", 2);
        }
        append_growing(current->m_bsRawValue, value, value_size);
        append_growing(current->m_bsWireValue, "\r\n\t", 3);
        append_growing(current->m_bsWireValue, value, value_size);
    }
}

void DecodeHeaders(CMIMEHeaders& headers, int32_t codepage) {
    for (CMIMEHeader* h : headers.m_coll) DecodeMimeWords(h->m_bsRawValue, h->m_wsValue, codepage);
}

// ---- header parameters --------------------------------------------------------------------

void SplitHeaderParameters(CMIMEHeaders& headers) {
    for (CMIMEHeader* h : headers.m_coll)
        if (h->m_bsKey.equals("Content-Type") || h->m_bsKey.equals("Content-Disposition"))
            SplitHeaderParameters(*h);
}

void SplitHeaderParameters(CMIMEHeader& record) {
    record.m_mapParams.clear();
    record.m_bsMainValue.nSize = 0;
    const bstring& value = record.m_bsRawValue;
    const char* p = value.pData;
    // value = main *(";" parameter); a ";" inside double quotes separates
    // nothing. The quote parity runs on, so this stays linear.
    std::vector<std::pair<int32_t, int32_t>> pieces;
    bool quoted = false;
    int32_t token = 0;
    for (int32_t i = 0; i < value.nSize; ++i) {
        if (p[i] == '"') quoted = !quoted;
        else if (p[i] == ';' && !quoted) {
            pieces.emplace_back(token, i);
            token = i + 1;
        }
    }
    pieces.emplace_back(token, value.nSize > 0 ? value.nSize : 0);

    bstring main(p + pieces[0].first, pieces[0].second - pieces[0].first);
    main.trim().to_lower();
    record.m_bsMainValue.assign(main);

    int32_t first_star_length = 0;
    for (size_t k = 1; k < pieces.size(); ++k) {
        const char* piece = p + pieces[k].first;
        int32_t n = pieces[k].second - pieces[k].first;
        const void* eq_hit = std::memchr(piece, '=', size_t(n));
        if (!eq_hit) continue;
        int32_t eq = int32_t(static_cast<const char*>(eq_hit) - piece);
        if (eq == 0 || eq == n - 1) continue;  // "=x" and "name=" say nothing
        bstring name(piece, eq);
        name.trim_all().to_lower();
        int32_t a = eq + 1, b = n;
        auto trimmed = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
        while (a < b && trimmed(piece[a])) ++a;
        while (b > a && trimmed(piece[b - 1])) --b;
        if (b - a >= 2 && piece[a] == '"' && piece[b - 1] == '"') {
            ++a;
            --b;
        }
        bstring param(piece + a, b - a);
        if (name.find('*') >= 0) {
            // A value folded inside its quotes is whole again.
            if (param.find("\r\n") >= 0) {
                bstring joined;
                param.replace_into(joined, "\r\n", "");
                param = std::move(joined);
            }
            // "filename*0*" then "filename*1": the continuation of an encoded
            // value is taken as encoded too.
            if (first_star_length == 0)
                first_star_length = name.nSize;
            else if (name.nSize < first_star_length)
                name += '*';
        }
        record.m_mapParams[name] = std::move(param);
    }
}

bool GetHeaderParameter(CMIMEHeader& record, const char* name) {
    const int32_t name_length = int32_t(std::strlen(name));
    if (name_length <= 0) return false;
    std::vector<MimeWordChunk> chunks;
    int32_t codepage = -1;
    for (auto it = record.m_mapParams.begin(); it != record.m_mapParams.end();) {
        const bstring& key = it->first;
        if (key.nSize <= name_length || !key.equals_prefix(name, name_length) ||
            key.pData[name_length] != '*') {
            ++it;
            continue;
        }
        bstring value(it->second);
        if (value.nSize >= 2 && value.pData[0] == '"' && value.last_unit() == '"')
            value.assign(bstring(value.pData + 1, value.nSize - 2));
        if (key.last_unit() == '*' || key.pData[key.nSize - 2] == '*') {
            MimeWordChunk chunk;
            chunk.encoded = ParseExtendedValue(value, chunk.text, codepage);
            chunk.codepage = chunk.encoded ? codepage : -1;
            chunks.push_back(std::move(chunk));
        }
        // Taken or not ("name*10" is not), the entry is gone.
        it = record.m_mapParams.erase(it);
    }
    MergeMimeWordChunks(chunks);
    wbstring result, piece;
    for (const MimeWordChunk& chunk : chunks) {
        if (chunk.text.nSize <= 0) continue;
        if (chunk.encoded) {
            bstring bytes;
            PercentDecode(chunk.text, bytes);
            result.append_import(bytes, chunk.codepage);
        } else if (chunk.text.pData[0] == 0) {
            result.append_import(chunk.text, kCodepageWindows1252);
        } else {
            result.append(DecodeMimeWords(chunk.text, piece, codepage));
        }
    }
    if (result.nSize <= 0) return false;
    record.m_mapWideParams[bstring(name)] = std::move(result);
    return true;
}

// ---- uuencoded files in a plain body ------------------------------------------------------

bool ScanUuencoded(const bstring& body, int32_t codepage, CAttachments& attachments,
                   bstring& text) {
    const char* p = body.pData;
    const int32_t size = body.nSize;
    int32_t pos = 0, rest = 0;
    bool found = false;
    auto digit = [](char c) { return c >= '0' && c <= '9'; };
    while (pos < size - 15) {
        pos = find_bytes(body, pos, "begin ", 6);
        if (pos < 0) break;
        if (pos != 0 && p[pos - 1] != '\n') {
            pos += 10;
            continue;
        }
        if (pos > size - 15) break;
        if (!digit(p[pos + 6]) || !digit(p[pos + 7]) || !digit(p[pos + 8]) || p[pos + 9] != ' ') {
            pos += 6;
            continue;
        }
        int32_t name_end = find_bytes(body, pos + 10, "\r\n", 2);
        if (name_end < 0) {
            pos += 10;
            continue;
        }
        int32_t data_start = name_end + 2;
        if (data_start > size - 3) break;
        int32_t end = find_bytes(body, data_start, "end", 3);
        if (end < 0) break;

        CAttachment* attachment = CAttachment::New();
        attachment->m_wsFilename.import_bstring(view_of(body, pos + 10, name_end), codepage);
        attachment->m_bInline = false;
        attachment->m_bMessage = false;
        DecodeUuencode(attachment->m_bsContent, view_of(body, data_start, end));
        attachments.Add(attachment);

        if (!found) {
            text.nSize = 0;
            int64_t want = size - end <= data_start ? int64_t(data_start) + size - end
                                                    : int64_t(data_start) * 3;
            text.reserve(int32_t(want < size ? want : size));
        }
        if (pos > rest) append_growing(text, p + rest, pos - rest);
        pos = end + 3;
        rest = find_bytes(body, end + 3, "\r\n", 2);
        found = true;
    }
    if (found && rest >= 0 && rest + 2 < size) append_growing(text, p + rest + 2, size - rest - 2);
    return found;
}

// ---- the message ---------------------------------------------------------------------------

void CMessage::DecodePart(const bstring& part, int32_t& default_codepage, ParseBudget& budget) {
    Trace("DecodePart started");
    Trace("Header section start");
    int32_t header_size = find_bytes(part, 0, "\r\n\r\n", 4);
    if (header_size < 0) header_size = part.nSize;
    bstring header_text = view_of(part, 0, header_size);
    trace_bytes(header_text);
    Trace("Header section end");

    CMIMEHeaders* headers = CMIMEHeaders::New();
    ParseHeaderSection(*headers, header_text);
    SplitHeaderParameters(*headers);

    bstring content_type, charset, boundary;
    headers->GetMain(content_type, "Content-Type");
    headers->GetParam(charset, "Content-Type", "charset");
    Trace("Content-Type, charset, boundary:");
    if (content_type.find("multipart/") >= 0) {
        headers->GetParam(boundary, "Content-Type", "boundary");
        if (boundary.find_line_end() != 0) {
            bstring unfolded;
            boundary.replace_into(unfolded, "\r\n", "");
            boundary = std::move(unfolded);
        }
    }
    trace_bytes(content_type);
    trace_bytes(charset);
    trace_bytes(boundary);
    Trace("DecodePart progress 1");

    bstring body;
    if (part.nSize > header_size + 4) body = view_of(part, header_size + 4, part.nSize);

    const bool top = budget.depth == 0;
    std::vector<bstring> subparts;
    // Too deep a nesting is not split: the multipart stays one attachment.
    if (body.nSize > 0 && budget.depth < kMaxNestingDepth && budget.parts_left > 0) {
        SplitMultipart(subparts, body, boundary, budget.parts_left);
        budget.parts_left -= int32_t(subparts.size());
    }
    Trace("DecodePart progress 2");
    ++budget.depth;
    for (const bstring& sub : subparts) DecodePart(sub, default_codepage, budget);
    --budget.depth;
    Trace("DecodePart progress 2.5");

    int32_t codepage = LookupCodepage(charset);
    trace_number("nPartCodePage=", codepage);
    if (top) m_nTopCodepage = codepage;
    const bool declared = codepage >= 0;
    if (!declared) codepage = default_codepage;

    Trace("DecodePart progress 3");
    // A multipart message without a charset has its headers decoded once its
    // text parts are known (RawBodyToMessage); a decode here would be thrown
    // away, and the top section is the longest one.
    if (!top || subparts.empty() || m_nTopCodepage != kCodepageUnknown)
        DecodeHeaders(*headers, codepage);
    Trace("DecodePart progress 4");
    if (top) {
        m_bsCharset.nSize = 0;
        m_pHeaders->Release();
        headers->AddRef();
        m_pHeaders = headers;
    }
    Trace("DecodePart progress 5");

    if (subparts.empty()) {
        bstring encoding;
        headers->GetRaw(encoding, "Content-Transfer-Encoding");
        encoding.trim().to_lower();
        bstring decoded;
        if (encoding.equals("quoted-printable"))
            DecodeQuotedPrintable(decoded, body, false);
        else if (encoding.equals("base64"))
            DecodeBase64(decoded, body);
        else if (encoding.find("uue") >= 0)
            DecodeUuencode(decoded, body);
        else
            decoded = body;  // a view, until the text import or the attachment's copy
        // The bytes stay in the declared code page even behind a byte order mark.

        bstring disposition;
        headers->GetMain(disposition, "Content-Disposition");
        CMIMEHeader* disposition_record = headers->Find("Content-Disposition");
        CMIMEHeader* type_record = headers->Find("Content-Type");

        wbstring wide_name;
        bstring byte_name;
        auto look_for_name = [&](CMIMEHeader* record, const char* param) {
            if (GetHeaderParameter(*record, param)) {
                wide_name.assign(record->m_mapWideParams[bstring(param)]);
            } else {
                auto it = record->m_mapParams.find(bstring(param));
                if (it != record->m_mapParams.end()) byte_name.assign(it->second);
            }
        };
        if (disposition_record) look_for_name(disposition_record, "filename");
        if (wide_name.nSize <= 0 && byte_name.nSize <= 0 && type_record)
            look_for_name(type_record, "name");
        const bool named = wide_name.nSize > 0 || byte_name.nSize > 0;

        const bool attachment_part =
            named || disposition.equals("attachment") ||
            (content_type.nSize > 0 && content_type.find("text/") < 0 && !content_type.equals("text"));

        if (!attachment_part) {
            bstring rest;
            bool uuencoded = !type_record && top && ScanUuencoded(body, codepage, *m_pAttachments, rest);
            CBodyPart* text = CBodyPart::New();
            text->m_bsMediaType.assign(content_type);
            headers->GetRaw(text->m_bsContentTypeLine, "Content-Type");
            text->m_bsCharset.assign(charset);
            text->m_nFormat = GetFormatFromMediaType(text->m_bsMediaType);
            text->m_nCodepage = codepage;
            // Later parts without a charset inherit that of the last text
            // part that had one.
            if (declared) default_codepage = codepage;
            trace_number("bsDecoded.nSize=", decoded.nSize);
            text->m_bsContent.import_bstring(uuencoded ? rest : decoded, codepage);
            trace_number("pPart->m_bsContent.nSize=", text->m_bsContent.nSize);
            m_collBodyParts.push_back(text);
        } else {
            if (!named) {
                headers->GetWide(wide_name, "Content-Location");
                if (wide_name.find(u"://") > 0) wide_name.replace(u"%20", u" ");
            }
            if (byte_name.nSize > 0) {
                DecodeMimeWords(byte_name, wide_name, codepage);
                if (wide_name.find_line_end() >= 0) wide_name.replace(u"\r\n", u"");
            }
            // The name is a file name only: no way into another directory.
            wide_name.replace_char(u'\\', u'_').replace_char(u'/', u'_').replace_char(u':', u'_');

            CAttachment* attachment = CAttachment::New();
            attachment->m_wsFilename = std::move(wide_name);
            attachment->m_bsContentType.assign(content_type);
            attachment->m_bInline = !disposition_record || !disposition.equals("attachment");
            headers->GetWide(attachment->m_wsContentID, "Content-ID");
            headers->GetWide(attachment->m_wsContentLocation, "Content-Location");
            headers->GetWide(attachment->m_wsContentDisposition, "Content-Disposition");
            attachment->m_bMessage = content_type.equals("message/rfc822");
            decoded.give_to(attachment->m_bsContent);  // copies a view, moves a decoded buffer
            attachment->m_nOrdinal = m_pAttachments->CountInternal();
            m_pAttachments->Add(attachment);
        }
    }

    Trace("DecodePart progress 6");
    headers->Release();
    Trace("DecodePart succeeded");
}

void CMessage::LoadHeaderProperties() {
    m_pHeaders->GetWide(m_wsFromAddr, "from");
    m_pHeaders->GetWide(m_wsReplyToAddr, "reply-to");
    m_pHeaders->GetWide(m_wsToAddr, "to");
    m_pHeaders->GetWide(m_wsCCAddr, "cc");
    m_pHeaders->GetWide(m_wsSubject, "subject");
    m_pHeaders->GetRaw(m_bsReturnPath, "return-path");
    m_pHeaders->GetRaw(m_bsDate, "date");
    m_pHeaders->GetRaw(m_bsMessageId, "message-id");
    m_pHeaders->GetRaw(m_bsXMailer, "x-mailer");

    // Received values leave the collection for a field of their own; one
    // pass keeps this linear however many there are.
    m_bsReceived.nSize = 0;
    m_bsReceived.reserve(500);
    std::vector<CMIMEHeader*>& records = m_pHeaders->m_coll;
    size_t kept = 0;
    for (size_t i = 0; i < records.size(); ++i) {
        CMIMEHeader* h = records[i];
        if (h->m_bsKey.equals("received")) {
            if (m_bsReceived.nSize > 0) append_growing(m_bsReceived, "\r\n", 2);
            append_growing(m_bsReceived, h->m_bsRawValue);
            h->Release();
        } else {
            records[kept++] = h;
        }
    }
    records.resize(kept);
    for (CMIMEHeader* h : records) h->m_bStandard = IsStandardHeader(h->m_bsKey);
}

void CMessage::RawBodyToMessage() {
    int32_t default_codepage = -1;
    int32_t header_codepage = 0;

    m_wsPureFromAddr.nSize = 0;
    m_wsPureReplyToAddr.nSize = 0;
    m_wsPureToAddr.nSize = 0;
    m_wsPureCCAddr.nSize = 0;
    m_bMessageIdSet = false;
    m_bDateSet = false;
    m_nTopCodepage = -1;
    m_pHeaders->Clear();
    m_pAttachments->Clear();
    m_pAttachments->m_bModified = false;
    m_bsSpecialBodyContentType.nSize = 0;
    m_wsSpecialBodyText.nSize = 0;
    m_bsSpecialBodyHeaders.nSize = 0;
    m_bsMultipartContentType.nSize = 0;
    m_bsMultipartExtraParams.nSize = 0;
    for (CBodyPart* part : m_collBodyParts) part->Release();
    m_collBodyParts.clear();

    Trace("RawBodyToMessage to decode");
    ParseBudget budget;
    DecodePart(m_bsRawBody, default_codepage, budget);
    Trace("RawBodyToMessage decoded");

    CBodyPart *plain = nullptr, *html = nullptr, *last = nullptr;
    for (CBodyPart* part : m_collBodyParts) {
        Trace("m_collBodyParts iter 1");
        last = part;
        if (part->m_nFormat == kFormatPlain) {
            if (!plain) {
                Trace("m_collBodyParts iter 2");
                plain = part;
            } else {
                Trace("m_collBodyParts iter 3");
                append_growing(plain->m_bsContent, u"\r\n\r\n");
                append_growing(plain->m_bsContent, part->m_bsContent);
            }
        }
        if (part->m_nFormat == kFormatHtml) {
            if (!html) {
                Trace("m_collBodyParts iter 4");
                html = part;
            } else {
                Trace("m_collBodyParts iter 4.5");
                append_growing(html->m_bsContent, u"\r\n<hr/><!-- NEXT BODY PART -->\r\n");
                append_growing(html->m_bsContent, part->m_bsContent);
            }
        }
        if (part->m_nFormat != kFormatPlain && part->m_nFormat != kFormatHtml &&
            part->m_bsMediaType.nSize >= 5 && part->m_bsMediaType.equals_prefix("text/", 5)) {
            Trace("m_collBodyParts iter 5");
            m_wsSpecialBodyText.assign(part->m_bsContent);
            m_bsSpecialBodyContentType.assign(part->m_bsContentTypeLine);
        }
    }
    m_bsCharset.nSize = 0;
    Trace("m_collBodyParts iter done");

    auto make_alt_from_html = [&] {
        Trace("Will ConvertHtmlToPlain");
        ConvertHtmlToPlain(m_wsAltBodyText, html->m_bsContent, html->m_nCodepage, m_nAltBodyOptions,
                           m_wsAltBodyHRefSuffix);
    };
    if (html) {
        m_wsBodyText.assign(html->m_bsContent);
        m_nBodyFormat = kFormatHtml;
        m_nCodepageOriginal = html->m_nCodepage;
        m_bsCharsetOriginal.assign(html->m_bsCharset);
        if (html->m_bsCharset.nSize > 0) m_bsCharset.assign(html->m_bsCharset);
        if (plain) {
            Trace("pPlainPart 1");
            if (m_bsCharset.nSize <= 0 && plain->m_bsCharset.nSize > 0)
                m_bsCharset.assign(plain->m_bsCharset);
            if ((m_nAltBodyOptions & 3) != 2) {
                m_wsAltBodyText.assign(plain->m_bsContent);
            } else {
                make_alt_from_html();
                Trace("ConvertHtmlToPlain done");
            }
            Trace("pPlainPart 2");
            if (m_nTopCodepage == -1) header_codepage = plain->m_nCodepage;
        } else {
            Trace("pPlainPart else");
            int32_t source = m_nAltBodyOptions & 3;
            if (source == 1 || source == 2) {
                make_alt_from_html();
                Trace("Will ConvertHtmlToPlain");
            } else {
                m_wsAltBodyText.nSize = 0;
            }
            if (m_nTopCodepage == -1) header_codepage = html->m_nCodepage;
        }
    } else if (plain) {
        m_wsBodyText.assign(plain->m_bsContent);
        m_nBodyFormat = kFormatPlain;
        m_nCodepageOriginal = plain->m_nCodepage;
        m_bsCharsetOriginal.assign(plain->m_bsCharset);
        if (plain->m_bsCharset.nSize > 0) m_bsCharset.assign(plain->m_bsCharset);
        m_wsAltBodyText.nSize = 0;
        if (m_nTopCodepage == -1) header_codepage = plain->m_nCodepage;
    } else if (last) {
        m_wsBodyText.assign(last->m_bsContent);
        m_nBodyFormat = kFormatPlain;
        m_wsAltBodyText.nSize = 0;
    }

    if (m_bHeadersOnly) {
        Trace("Will m_bHeadersOnly");
        bstring type;
        if (m_pHeaders->GetMain(type, "content-type")) {
            type.to_lower();
            m_bHasAttachments = type.find("multipart/") >= 0 && !type.equals("multipart/alternative");
        } else {
            m_bHasAttachments = false;
        }
        Trace("m_bHeadersOnly done");
    } else {
        m_bHasAttachments = m_pAttachments->CountInternal() > 0;
    }

    if (m_nTopCodepage == -1) {
        Trace("Will DecodeHeaders");
        DecodeHeaders(*m_pHeaders, header_codepage);
        Trace("DecodeHeaders done");
    }

    Trace("RawBodyToMessage to final touch");
    LoadHeaderProperties();

    for (CBodyPart* part : m_collBodyParts) part->Release();
    m_collBodyParts.clear();
    Trace("RawBodyToMessage succeeded");
}

}  // namespace kv
