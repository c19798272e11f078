// The message's HTML and plain-text members: the alternative body made from
// the HTML body, and the two conversions offered to scripts.
#include "codecs/html_to_plain.h"
#include "codecs/plain_to_html.h"
#include "message/message.h"

namespace kv {

HRESULT CMessage::MakeAltBody(VARIANT_BOOL* out) {
    if (m_nBodyFormat != 1) {
        *out = VARIANT_FALSE;
        return S_OK;
    }
    ConvertHtmlToPlain(m_wsAltBodyText, m_wsBodyText, 0, m_nAltBodyOptions, m_wsAltBodyHRefSuffix);
    m_bNeedsRebuild = true;
    *out = VARIANT_TRUE;
    return S_OK;
}

HRESULT CMessage::GetPlainFromHtml(BSTR html, BSTR* out) {
    wbstring source, plain;
    source.assign_bstr(html);
    ConvertHtmlToPlain(plain, source, 0, m_nAltBodyOptions, m_wsAltBodyHRefSuffix);
    *out = plain.to_bstr();
    return S_OK;
}

HRESULT CMessage::GetHtmlFromPlain(BSTR plain_text, BSTR title, VARIANT_BOOL inner_body_only,
                                   BSTR* out) {
    wbstring text, heading, html;
    text.assign_bstr(plain_text);
    heading.assign_bstr(title);
    kv::GetHtmlFromPlain(html, text, heading, inner_body_only != VARIANT_FALSE);
    *out = html.to_bstr();
    return S_OK;
}

}  // namespace kv
