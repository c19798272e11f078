// The message members that move whole files and byte arrays in and out of a
// message. Whatever comes in through the raw side is parsed at once;
// whatever goes out through it is rebuilt first.
#include <unistd.h>

#include <cstdio>

#include "codecs/charset.h"
#include "foundation/trace.h"
#include "message/embedded.h"
#include "message/files.h"
#include "message/message.h"
#include "platform/directories.h"
#include "platform/files.h"

namespace kv {

namespace {

VARIANT_BOOL Bool(bool b) { return b ? VARIANT_TRUE : VARIANT_FALSE; }

void trace_path(const wbstring& path) {
    std::string name = platform::PathFromWide(path);
    Trace(name.data(), int32_t(name.size()));
}

}  // namespace

bool WriteTextToFile(const wbstring& path, wbstring& text, int32_t codepage, bool overwrite) {
    if (path.nSize <= 0) return false;
    bstring bytes;
    text.export_bstring(bytes, codepage < 0 ? 0 : codepage);
    FILE* file = platform::OpenFile(path, overwrite ? "wb" : "ab");
    if (!file) return false;
    size_t size = size_t(bytes.nSize > 0 ? bytes.nSize : 0);
    size_t written = size ? std::fwrite(bytes.pData, 1, size, file) : 0;
    bool closed = std::fclose(file) == 0;
    return written == size && closed;
}

int OpenAndLockFile(const wbstring& path) {
    Trace("Will open and lock file:");
    trace_path(path);
    int fd = platform::OpenAndLockFile(path, 32767);
    if (fd == -1) {
        Trace("hFile == NULL");
        return -1;
    }
    if (fd < 0) {
        Trace("File could not be locked");
        return -1;
    }
    Trace("File opened and locked");
    return fd;
}

bool CMessage::SaveRawToFile(const wbstring& path, const bstring& prefix) {
    EnsureRawBody();
    FILE* file = platform::OpenFile(path, "wb");
    if (!file) return false;
    if (prefix.nSize > 0) std::fwrite(prefix.pData, 1, size_t(prefix.nSize), file);
    size_t size = size_t(m_bsRawBody.nSize > 0 ? m_bsRawBody.nSize : 0);
    size_t written = size ? std::fwrite(m_bsRawBody.pData, 1, size, file) : 0;
    bool closed = std::fclose(file) == 0;
    return written == size && closed;
}

HRESULT CMessage::SaveMessage(BSTR path_text, VARIANT_BOOL* out) {
    wbstring path;
    path.assign_bstr(path_text);
    *out = Bool(SaveRawToFile(path, bstring()));
    return S_OK;
}

HRESULT CMessage::ImportFromFile(BSTR path_text, VARIANT_BOOL* out) {
    wbstring path;
    path.assign_bstr(path_text);
    m_bsRawBody.nSize = 0;
    bool ok = AppendFileToBString(path, m_bsRawBody);
    if (ok) {
        RawBodyToMessage();
        m_bNeedsRebuild = false;
    }
    *out = Bool(ok);
    return S_OK;
}

HRESULT CMessage::ImportFromMemory(const VARIANT& data, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    if (!BytesFromArrayVariant(data, m_bsRawBody)) return S_OK;
    RawBodyToMessage();
    m_bNeedsRebuild = false;
    *out = VARIANT_TRUE;
    return S_OK;
}

HRESULT CMessage::ImportBodyText(BSTR path_text, VARIANT_BOOL html_import, VARIANT_BOOL append_mode,
                                 BSTR charset_text, int32_t charset_options, VARIANT_BOOL* out) {
    *out = VARIANT_FALSE;
    wbstring path;
    path.assign_bstr(path_text);
    bstring charset;
    charset.assign_bstr(charset_text);
    int32_t codepage = LookupCodepage(charset);

    if (!html_import) {
        if (!append_mode) m_wsBodyText.nSize = 0;
        bstring bytes;
        if (!AppendFileToBString(path, bytes)) return S_OK;
        m_wsBodyText.append_import(bytes, codepage);
        m_bNeedsRebuild = true;
        *out = VARIANT_TRUE;
        return S_OK;
    }

    m_nBodyFormat = 1;
    bstring bytes;
    if (!AppendFileToBString(path, bytes)) return S_OK;
    const bool remove_tag = (charset_options & 1) == 0;
    const bool set_charset = (charset_options & 2) != 0;
    const bool argument_wins = (charset_options & 4) != 0 && charset.nSize > 0;
    bstring found;
    FindMetaCharset(bytes, remove_tag, found);
    bstring local(charset);
    if (found.nSize > 0 && !argument_wins) local.assign(found);
    if (set_charset) m_bsCharset.assign(local);
    codepage = LookupCodepage(local);
    wbstring text;
    text.import_bstring(bytes, codepage);

    // The directory of the imported file, for its relative references.
    wbstring base(260);
    int32_t slash = path.rfind(u'/'), backslash = path.rfind(u'\\');
    int32_t cut = slash > backslash ? slash : backslash;
    if (cut >= 0) base.append(path.pData, cut + 1);

    if (!append_mode) m_wsBodyText.nSize = 0;
    wbstring_vector ids, paths;
    RewriteLocalObjects(m_wsBodyText, ids, paths, text, base, codepage);
    for (size_t i = 0; i < ids.size() && i < paths.size(); ++i) {
        BSTR file = paths[i].to_bstr();
        BSTR id = ids[i].to_bstr();
        BSTR empty = SysAllocString(u"");
        VARIANT_BOOL added = VARIANT_FALSE;
        AddAttachment(file, empty, id, empty, &added);  // an unreadable file is passed over
        SysFreeString(file);
        SysFreeString(id);
        SysFreeString(empty);
    }
    m_bNeedsRebuild = true;
    *out = VARIANT_TRUE;
    return S_OK;
}

HRESULT CMessage::ImportAltBodyText(BSTR path_text, VARIANT_BOOL append_mode, BSTR, VARIANT_BOOL* out) {
    wbstring path;
    path.assign_bstr(path_text);
    // The charset argument has never been read: the text is taken in the
    // system code page, and callers rely on that.
    int32_t codepage = LookupCodepage(bstring());
    if (!append_mode) m_wsAltBodyText.nSize = 0;
    bstring bytes;
    bool ok = AppendFileToBString(path, bytes);
    if (ok) m_wsAltBodyText.append_import(bytes, codepage);
    m_bNeedsRebuild = true;
    *out = Bool(ok);
    return S_OK;
}

HRESULT CMessage::GetFileAsArray(BSTR path_text, VARIANT* out) {
    VariantInit(out);
    wbstring path;
    path.assign_bstr(path_text);
    bstring bytes;
    if (!AppendFileToBString(path, bytes)) return S_OK;
    return BytesToArrayVariant(bytes, out);
}

HRESULT CMessage::WriteStringToFile(BSTR filename, BSTR data, VARIANT_BOOL overwrite, int32_t codepage,
                                    VARIANT_BOOL* out) {
    wbstring path, text;
    path.assign_bstr(filename);
    text.assign_bstr(data);
    *out = Bool(WriteTextToFile(path, text, codepage, overwrite != 0));
    return S_OK;
}

}  // namespace kv
