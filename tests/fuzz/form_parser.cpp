// The multipart form walk on arbitrary bodies, through ParseRequest as a
// script calls it. Small bodies are held to the plain model of the walk;
// every body must leave file contents that are windows of the body, and the
// byte-array path must agree with a direct parse.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "../unit/upload/form_reference.h"
#include "automation/safearray.h"
#include "automation/variant.h"
#include "upload/uploader.h"

namespace {

void Check(bool ok) {
    if (!ok) std::abort();
}

std::string_view View(const kv::bstring& b) {
    return b.nSize > 0 ? std::string_view(b.pData, size_t(b.nSize)) : std::string_view();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1 << 20)) return 0;
    std::string_view body(reinterpret_cast<const char*>(data), size);

    VARIANT array;
    VariantInit(&array);
    array.vt = VT_ARRAY | VT_UI1;
    array.parray = SafeArrayCreateVector(VT_UI1, 0, uint32_t(size));
    void* bytes = nullptr;
    SafeArrayAccessData(array.parray, &bytes);
    if (size) std::memcpy(bytes, data, size);
    SafeArrayUnaccessData(array.parray);

    kv::CUploader* up = kv::CUploader::New();
    VARIANT_BOOL ok = 0;
    up->ParseRequest(array, &ok);
    VariantClear(&array);  // the objects keep their own bytes

    Check((ok == VARIANT_TRUE) == (body.find("\r\n") != std::string_view::npos));
    for (auto& [name, file] : up->m_pFormFiles->m_map) {
        Check(file->m_nSize == file->m_bsValue.nSize);
        Check(file->m_bsFilename.nSize > 0 && View(file->m_bsFilename).find('\\') == std::string_view::npos);
        Check(body.find(View(file->m_bsValue)) != std::string_view::npos);
    }

    if (size <= 4096) {
        kv::reference::Form want = kv::reference::ParseForm(body);
        Check(want.elements.size() == up->m_pFormElements->m_map.size());
        Check(want.files.size() == up->m_pFormFiles->m_map.size());
        for (const auto& entry : up->m_pFormElements->m_map) {
            const kv::CFormElement* element = entry.second;
            auto it = std::find_if(want.elements.begin(), want.elements.end(), [&](const auto& e) {
                return kv::reference::SameName(e.first, View(element->m_bsName));
            });
            Check(it != want.elements.end() && it->first == View(element->m_bsName) &&
                  it->second == View(element->m_bsValue));
        }
        for (const kv::reference::FormFile& f : want.files) {
            auto it = std::find_if(up->m_pFormFiles->m_map.begin(), up->m_pFormFiles->m_map.end(),
                                   [&](const auto& e) { return View(e.second->m_bsName) == f.name; });
            Check(it != up->m_pFormFiles->m_map.end());
            Check(View(it->second->m_bsValue) == f.value && View(it->second->m_bsFilename) == f.filename &&
                  View(it->second->m_bsContentType) == f.content_type);
        }
    }
    up->Release();
    return 0;
}
