// The members of the message that convert between charsets and read dates.
#include "codecs/charset.h"
#include "codecs/dates.h"
#include "message/message.h"

namespace kv {

HRESULT CMessage::ToUTF8(BSTR src_text, BSTR charset_text, BSTR* out) {
    wbstring src, result;
    src.assign_bstr(src_text);
    bstring charset;
    charset.assign_bstr(charset_text);
    *out = ConvertTextToUTF8(src, charset, result).to_bstr();
    return S_OK;
}

HRESULT CMessage::ConvertCharset(BSTR src_text, BSTR src_charset_text, BSTR dest_charset_text,
                                 BSTR* out) {
    wbstring src, result;
    src.assign_bstr(src_text);
    bstring src_charset, dest_charset;
    src_charset.assign_bstr(src_charset_text);
    dest_charset.assign_bstr(dest_charset_text);
    *out = ConvertCharsetText(src, src_charset, dest_charset, result).to_bstr();
    return S_OK;
}

// The body loses its meta charset tag, so the raw text is stale afterwards.
HRESULT CMessage::RemoveCharsetFromBody(BSTR* out) {
    wbstring charset;
    int32_t before = m_wsBodyText.nSize;
    RemoveMetaCharset(m_wsBodyText, charset);
    if (m_wsBodyText.nSize != before) m_bNeedsRebuild = true;
    *out = charset.to_bstr();
    return S_OK;
}

HRESULT CMessage::GetCodepageFromCharset(BSTR charset_text, int32_t* out) {
    bstring charset;
    charset.assign_bstr(charset_text);
    *out = LookupCodepage(charset);
    return S_OK;
}

HRESULT CMessage::GetDateFromString(BSTR text, VARIANT_BOOL to_local_time, double* out) {
    bstring date;
    date.assign_bstr(text);
    *out = kv::GetDateFromString(date, to_local_time != 0);
    return S_OK;
}

}  // namespace kv
