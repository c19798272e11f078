// CUploader, the automation object Korvane.Uploader: splits the raw body of
// a multipart/form-data post into named fields and files for a web script.
//
// The split is a plain scan, tolerant and cheap: the boundary is whatever the
// body's first line holds (the Content-Type header's parameter is not asked),
// each part runs from two bytes behind one boundary to two bytes before the
// next, and a part holding filename=" (not at its first byte) is a file.
// Nothing else is checked. The walk is linear in the body for any bytes.
#pragma once

#include <cstdint>

#include "automation/object.h"
#include "foundation/bstring.h"
#include "upload/form_collections.h"

namespace kv {

namespace upload {
class FormScan;
}

class CUploader : public ObjectBase {
public:
    // A new uploader holding one reference, its creator's.
    static CUploader* New();
    ~CUploader() override;

    CFormElements* m_pFormElements = nullptr;
    CFormFiles* m_pFormFiles = nullptr;
    bstring m_bsBoundary;
    int32_t m_nCodepage = 0;

    // The script's call. pvt must be a byte array (VT_ARRAY | VT_UI1, 8209);
    // a by-reference variant holding one is taken as what it points at.
    // Another type gives false and leaves the collections as they were; a
    // null array or a body without CR LF gives false with both emptied.
    HRESULT ParseRequest(const VARIANT& pvt, VARIANT_BOOL* out);
    // The same for a body at hand: empties both collections, then parses.
    // False only when the body has no CR LF.
    bool ParseBody(const bstring& body);
    // The boundary is every byte before the first CR LF, leading dashes
    // included. False when there is no CR LF.
    bool SetBoundaryFormBuffer(const bstring& buffer);
    // Walks the parts behind the boundary and fills the collections.
    void InitializeArray(upload::FormScan& scan);

    // After a write of Codepage: sets it on both collections and every
    // object in them, so that what was parsed already reads in the new code
    // page.
    void CodepageChanged();

private:
    CUploader();
};

}  // namespace kv
