// An IEnumVARIANT over a snapshot of a collection's items, for _NewEnum.
#pragma once

#include <memory>
#include <vector>

#include "automation/interfaces.h"

namespace kv::automation {

// Copies items (references added, strings duplicated); the enumerator holds
// one reference for the caller. Null when a copy fails.
IEnumVARIANT* NewVariantEnumerator(const VARIANT* items, size_t count);

}  // namespace kv::automation
