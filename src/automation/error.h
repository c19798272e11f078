// How a member says why it failed. The text travels on this thread to Invoke,
// which hands it to the caller in EXCEPINFO, and from there to kv_last_error.
#pragma once

#include <string>
#include <string_view>

#include "automation/hresult.h"

namespace kv::automation {

// Records message (UTF-8) for the failure hr and returns hr, so a member can
// write `return ReportError(E_INVALIDARG, "Index counts from 1");`.
HRESULT ReportError(HRESULT hr, std::string_view message);
// The text recorded since the last call, or empty; clears it.
std::string TakeReportedError();

}  // namespace kv::automation
