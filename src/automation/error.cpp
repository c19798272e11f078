#include "automation/error.h"

namespace kv::automation {

namespace {
thread_local std::string t_reported;
}

HRESULT ReportError(HRESULT hr, std::string_view message) {
    t_reported.assign(message);
    return hr;
}

std::string TakeReportedError() {
    std::string s;
    s.swap(t_reported);
    return s;
}

}  // namespace kv::automation
