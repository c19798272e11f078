// The Date header reader on arbitrary bytes, in a zone with daylight time.
// Beyond surviving, it must keep its caps, a date it finds must convert to a
// DATE that converts back, and a date the writer wrote must read back as the
// same instant.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>

#include "codecs/dates.h"

namespace {

// 30827-12-01 00:00 UTC: written dates up to here stay within what the reader
// can turn back into ticks, whatever the zone.
constexpr int64_t kLastWritable = 9'223'123'104'000'000'000;

void Check(bool ok) {
    if (!ok) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    setenv("TZ", "<+1245>-12:45<+1345>,M9.5.0/2:45,M4.1.0/3:45", 1);
    tzset();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    using namespace kv;
    if (size > (1 << 16)) return 0;
    bstring text(reinterpret_cast<const char*>(data), static_cast<int32_t>(size));

    DateFields fields;
    ParseDateFields(text, fields);
    Check(fields.time.hour <= 23 && fields.time.minute <= 59 && fields.time.second <= 59);
    Check(fields.time.month >= 1 && fields.time.month <= 12 && fields.time.milliseconds == 0);

    for (bool local : {false, true}) {
        double date = GetDateFromString(text, local);
        platform::SystemTime back;
        Check(date == 0.0 || platform::VariantTimeToSystemTime(date, back));
    }

    int64_t ticks = 0;
    if (ParseDateString(text, ticks) && ticks >= 0 && ticks < kLastWritable) {
        bstring written;
        FormatDate(written, ticks);
        int64_t again = -1;
        Check(ParseDateString(written, again) && again == ticks);
    }
    return 0;
}
