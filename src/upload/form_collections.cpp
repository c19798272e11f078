#include "upload/form_collections.h"

#include "automation/error.h"
#include "message/collections.h"
#include "shell/classes.h"
#include "shell/identifiers.h"

namespace kv {

using automation::Arg;
using automation::Bind;
using automation::Property;
using automation::ReportError;

namespace {

template <class T>
void RebuildOrder(const std::map<bstring, T*>& map, std::vector<IDispatch*>& order) {
    order.clear();
    order.reserve(map.size());
    for (const auto& [name, object] : map) order.push_back(object);
}

// Item of either collection: a string names an entry (a new empty object
// when there is none), anything else is a position from 1.
template <class T>
HRESULT ItemOf(const std::map<bstring, T*>& map, const std::vector<IDispatch*>& order, int32_t codepage,
               const VARIANT& index, IDispatch** out) {
    VARIANT arg;
    VariantInit(&arg);
    if (HRESULT hr = VariantCopyInd(&arg, &index); FAILED(hr)) return hr;
    if (arg.vt == VT_BSTR) {
        bstring name;
        name.assign_bstr_cp(arg.bstrVal, codepage);
        VariantClear(&arg);
        auto it = map.find(name);
        if (it != map.end()) {
            it->second->AddRef();
            *out = it->second;
        } else {
            *out = T::New(codepage);
        }
        return S_OK;
    }
    VARIANT position;
    VariantInit(&position);
    HRESULT hr = VariantChangeType(&position, &arg, 0, VT_I4);
    VariantClear(&arg);
    if (FAILED(hr)) return ReportError(E_INVALIDARG, "Index is neither a name nor a position");
    int32_t i = position.lVal;
    if (i < 1 || size_t(i) > order.size())
        return ReportError(E_INVALIDARG, "Index is outside the collection");
    *out = order[size_t(i) - 1];
    (*out)->AddRef();
    return S_OK;
}

}  // namespace

// ---- CFormElements ------------------------------------------------------------------

CFormElements::CFormElements() : ObjectBase(shell::kFormElementsClass) {}
CFormElements* CFormElements::New() { return new CFormElements(); }
CFormElements::~CFormElements() { Clear(); }

CFormElement* CFormElements::Add(CFormElement* element) {
    auto [it, added] = m_map.try_emplace(element->m_bsName, element);
    if (added) {
        m_bOrderStale = true;
        return element;
    }
    it->second->AppendValue(element->m_bsValue);
    element->Release();
    return it->second;
}

void CFormElements::Clear() {
    for (auto& [name, element] : m_map) element->Release();
    m_map.clear();
    m_order.clear();
    m_bOrderStale = false;
}

void CFormElements::SetCodepage(int32_t codepage) {
    m_nCodepage = codepage;
    for (auto& [name, element] : m_map) element->m_nCodepage = codepage;
}

const std::vector<IDispatch*>& CFormElements::InOrder() {
    if (m_bOrderStale) RebuildOrder(m_map, m_order);
    m_bOrderStale = false;
    return m_order;
}

HRESULT CFormElements::get_Count(int32_t* out) {
    *out = int32_t(m_map.size());
    return S_OK;
}
HRESULT CFormElements::get_Item(const VARIANT& index, IDispatch** out) {
    return ItemOf(m_map, InOrder(), m_nCodepage, index, out);
}
HRESULT CFormElements::get__NewEnum(IUnknown** out) {
    const auto& order = InOrder();
    return CollectionEnum(order.data(), order.size(), out);
}

// ---- CFormFiles ---------------------------------------------------------------------

CFormFiles::CFormFiles() : ObjectBase(shell::kFormFilesClass) {}
CFormFiles* CFormFiles::New() { return new CFormFiles(); }
CFormFiles::~CFormFiles() { Clear(); }

CFormFile* CFormFiles::Add(CFormFile* file) {
    auto [it, added] = m_map.try_emplace(file->m_bsName, file);
    if (added) {
        m_bOrderStale = true;
        return file;
    }
    file->Release();
    return it->second;
}

void CFormFiles::Clear() {
    for (auto& [name, file] : m_map) file->Release();
    m_map.clear();
    m_order.clear();
    m_bOrderStale = false;
}

void CFormFiles::SetCodepage(int32_t codepage) {
    m_nCodepage = codepage;
    for (auto& [name, file] : m_map) file->m_nCodepage = codepage;
}

const std::vector<IDispatch*>& CFormFiles::InOrder() {
    if (m_bOrderStale) RebuildOrder(m_map, m_order);
    m_bOrderStale = false;
    return m_order;
}

HRESULT CFormFiles::get_Count(int32_t* out) {
    *out = int32_t(m_map.size());
    return S_OK;
}
HRESULT CFormFiles::get_Item(const VARIANT& index, IDispatch** out) {
    return ItemOf(m_map, InOrder(), m_nCodepage, index, out);
}
HRESULT CFormFiles::get__NewEnum(IUnknown** out) {
    const auto& order = InOrder();
    return CollectionEnum(order.data(), order.size(), out);
}

// ---- member tables -------------------------------------------------------------------

namespace shell {

const InterfaceInfo kIFormElements("IFormElements", IID_IFormElements, {
    Property(1, "Count", VT_I4, Bind<&CFormElements::get_Count>()),
    Property(0, "Item", VT_DISPATCH, Bind<&CFormElements::get_Item>(), {}, {Arg("Index", VT_VARIANT)}),
    Property(DISPID_NEWENUM, "_NewEnum", VT_UNKNOWN, Bind<&CFormElements::get__NewEnum>()),
});

const InterfaceInfo kIFormFiles("IFormFiles", IID_IFormFiles, {
    Property(1, "Count", VT_I4, Bind<&CFormFiles::get_Count>()),
    Property(0, "Item", VT_DISPATCH, Bind<&CFormFiles::get_Item>(), {}, {Arg("Index", VT_VARIANT)}),
    Property(DISPID_NEWENUM, "_NewEnum", VT_UNKNOWN, Bind<&CFormFiles::get__NewEnum>()),
});

}  // namespace shell
}  // namespace kv
