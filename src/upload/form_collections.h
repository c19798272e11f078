// The fields and the files of a posted form, each an ordered map from the
// part's name (raw bytes) to its object. The order is that of the names as
// bstring compares them (length first, then ignoring ASCII case), not that
// of the form, and names that compare equal share one entry.
//
// Item takes a name (a string, converted to bytes through the collection's
// code page) or a position counting from 1 in the map's order. A name that
// is not there gives a new empty object, not an error; a position outside
// 1..Count gives E_INVALIDARG.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "automation/object.h"
#include "foundation/bstring.h"
#include "upload/form_element.h"

namespace kv {

class CFormElements : public ObjectBase {
public:
    static CFormElements* New();
    ~CFormElements() override;

    std::map<bstring, CFormElement*> m_map;  // one reference each
    int32_t m_nCodepage = 0;                 // for names given to Item

    // Takes over the caller's reference. With the name taken already, the
    // element's value is joined to the first one's ("a,b") and the element
    // released. Returns the object that holds the name now (borrowed).
    CFormElement* Add(CFormElement* element);
    void Clear();
    // The code page of the collection and of every element in it.
    void SetCodepage(int32_t codepage);

    HRESULT get_Count(int32_t* out);
    HRESULT get_Item(const VARIANT& index, IDispatch** out);
    HRESULT get__NewEnum(IUnknown** out);

private:
    CFormElements();
    const std::vector<IDispatch*>& InOrder();
    std::vector<IDispatch*> m_order;  // borrowed, rebuilt after a change
    bool m_bOrderStale = false;
};

class CFormFiles : public ObjectBase {
public:
    static CFormFiles* New();
    ~CFormFiles() override;

    std::map<bstring, CFormFile*> m_map;  // one reference each
    int32_t m_nCodepage = 0;

    // Takes over the caller's reference. With the name taken already, the
    // new file is released and the first one stays. Returns the object that
    // holds the name (borrowed).
    CFormFile* Add(CFormFile* file);
    void Clear();
    void SetCodepage(int32_t codepage);

    HRESULT get_Count(int32_t* out);
    HRESULT get_Item(const VARIANT& index, IDispatch** out);
    HRESULT get__NewEnum(IUnknown** out);

private:
    CFormFiles();
    const std::vector<IDispatch*>& InOrder();
    std::vector<IDispatch*> m_order;
    bool m_bOrderStale = false;
};

}  // namespace kv
