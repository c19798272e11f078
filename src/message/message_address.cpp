// The members of the message that read and write addresses and header
// words.
#include "codecs/address.h"
#include "codecs/charset.h"
#include "codecs/idn.h"
#include "codecs/mimeword.h"
#include "message/message.h"

namespace kv {

namespace {

// Items joined by delimiter; an empty entry keeps its place.
template <class S>
S Join(const std::vector<S>& items, const S& delimiter) {
    S joined;
    for (size_t i = 0; i < items.size(); ++i) {
        if (i) joined.append(delimiter);
        joined.append(items[i]);
    }
    return joined;
}

}  // namespace

HRESULT CMessage::EncodeHeaderText(BSTR name_text, BSTR text, BSTR charset_text, int32_t encoding,
                                   BSTR* out) {
    bstring name, charset, result;
    name.assign_bstr(name_text);
    charset.assign_bstr(charset_text);
    wbstring value;
    value.assign_bstr(text);
    EncodeHeaderValue(name, value, charset, LookupCodepage(charset), encoding, result);
    *out = result.to_bstr(0);
    return S_OK;
}

const wbstring& CMessage::PureAddress(wbstring& cache, const wbstring& field, const char* header) {
    if (cache.nSize > 0 || field.nSize <= 0) return cache;
    // Encoded words of the wire value stay as they are.
    bstring source;
    if (CMIMEHeader* record = FindHeader(header)) {
        std::vector<bstring> pieces;
        record->m_bsWireValue.split_between(pieces, "=?", "?=");
        source.join(pieces, "");
    }
    if (source.nSize <= 0) {
        wbstring copy(field);
        copy.export_bstring(source, 0);
    }
    std::vector<bstring> addresses;
    ParsePureAddresses(source, addresses);
    bstring delimiter;
    m_wsAddressDelimiter.export_bstring(delimiter, 0);
    cache.import_bstring(Join(addresses, delimiter), 1252);
    return cache;
}

HRESULT CMessage::get_PureFromAddr(BSTR* out) {
    *out = PureAddress(m_wsPureFromAddr, m_wsFromAddr, "from").to_bstr();
    return S_OK;
}
HRESULT CMessage::get_PureToAddr(BSTR* out) {
    *out = PureAddress(m_wsPureToAddr, m_wsToAddr, "to").to_bstr();
    return S_OK;
}
HRESULT CMessage::get_PureCCAddr(BSTR* out) {
    *out = PureAddress(m_wsPureCCAddr, m_wsCCAddr, "cc").to_bstr();
    return S_OK;
}
HRESULT CMessage::get_PureReplyToAddr(BSTR* out) {
    *out = PureAddress(m_wsPureReplyToAddr, m_wsReplyToAddr, "reply-to").to_bstr();
    return S_OK;
}

static BSTR FriendlyNames(const wbstring& field, const wbstring& delimiter) {
    std::vector<wbstring> names;
    ParseFriendlyNames(field, names);
    return Join(names, delimiter).to_bstr();
}

HRESULT CMessage::get_FromFriendlyName(BSTR* out) {
    *out = FriendlyNames(m_wsFromAddr, m_wsAddressDelimiter);
    return S_OK;
}
HRESULT CMessage::get_ToFriendlyName(BSTR* out) {
    *out = FriendlyNames(m_wsToAddr, m_wsAddressDelimiter);
    return S_OK;
}
HRESULT CMessage::get_CCFriendlyName(BSTR* out) {
    *out = FriendlyNames(m_wsCCAddr, m_wsAddressDelimiter);
    return S_OK;
}
HRESULT CMessage::get_ReplyToFriendlyName(BSTR* out) {
    *out = FriendlyNames(m_wsReplyToAddr, m_wsAddressDelimiter);
    return S_OK;
}

HRESULT CMessage::GetPureAddr(BSTR addr, BSTR delimiter_text, BSTR* out) {
    bstring text, delimiter;
    text.assign_bstr(addr);
    delimiter.assign_bstr(delimiter_text);
    if (delimiter.nSize <= 0) m_wsAddressDelimiter.export_bstring(delimiter, 0);
    std::vector<bstring> addresses;
    ParsePureAddresses(text, addresses);
    *out = Join(addresses, delimiter).to_bstr(0);
    return S_OK;
}

HRESULT CMessage::GetFriendlyName(BSTR addr, BSTR delimiter_text, BSTR* out) {
    wbstring text, delimiter;
    text.assign_bstr(addr);
    delimiter.assign_bstr(delimiter_text);
    if (delimiter.nSize <= 0) delimiter.assign(m_wsAddressDelimiter);
    *out = FriendlyNames(text, delimiter);
    return S_OK;
}

HRESULT CMessage::ValidateEmailAddress(BSTR address_text, int32_t options, BSTR dns_server_text,
                                       VARIANT_BOOL* out) {
    bstring address, dns_server;
    address.assign_bstr(address_text);
    dns_server.assign_bstr(dns_server_text);
    *out = kv::ValidateEmailAddress(address, options, dns_server) ? VARIANT_TRUE : VARIANT_FALSE;
    return S_OK;
}

HRESULT CMessage::EscapeIdnDomain(BSTR address, BSTR* out) {
    wbstring text;
    text.assign_bstr(address);
    *out = kv::EscapeIdnDomain(text).to_bstr();
    return S_OK;
}

HRESULT CMessage::UnescapeIdnDomain(BSTR address, BSTR* out) {
    wbstring text;
    text.assign_bstr(address);
    *out = kv::UnescapeIdnDomain(text).to_bstr();
    return S_OK;
}

}  // namespace kv
