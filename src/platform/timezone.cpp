#include "platform/timezone.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <ctime>

namespace kv::platform {
namespace {

using std::chrono::day;
using std::chrono::month;
using std::chrono::sys_days;
using std::chrono::year;
using std::chrono::year_month_day;

constexpr int64_t kSecondsPerDay = 86'400;
constexpr int64_t kUnixEpochSeconds = kUnixEpochTicks / kTicksPerSecond;

// Day numbers relative to 1970-01-01.
constexpr int64_t DayNumber(int y, unsigned m, unsigned d) {
    return sys_days{year{y} / month{m} / day{d}}.time_since_epoch().count();
}
constexpr int64_t kFileTimeEpochDay = DayNumber(1601, 1, 1);
constexpr int64_t kDateEpochDay = DayNumber(1899, 12, 30);
// The automation runtime's range: 0100-01-01 .. 9999-12-31, as DATE day numbers.
constexpr int64_t kFirstDateDay = DayNumber(100, 1, 1) - kDateEpochDay;
constexpr int64_t kLastDateDay = DayNumber(9999, 12, 31) - kDateEpochDay;

std::atomic<int64_t> g_pinned_now{-1};

bool TimeOfDayValid(const SystemTime& t) {
    return t.hour < 24 && t.minute < 60 && t.second < 60 && t.milliseconds < 1000;
}

// Day number (from 1970-01-01) of a valid calendar date, or false.
bool CalendarDay(const SystemTime& t, int64_t& day_number) {
    year_month_day ymd{year{t.year}, month{t.month}, day{t.day}};
    if (!ymd.ok()) return false;
    day_number = sys_days{ymd}.time_since_epoch().count();
    return true;
}

void FillFromDay(int64_t day_number, int64_t second_of_day, int32_t milliseconds, SystemTime& t) {
    sys_days days{std::chrono::days{day_number}};
    year_month_day ymd{days};
    t.year = static_cast<uint16_t>(static_cast<int>(ymd.year()));
    t.month = static_cast<uint16_t>(static_cast<unsigned>(ymd.month()));
    t.day = static_cast<uint16_t>(static_cast<unsigned>(ymd.day()));
    t.dayOfWeek = static_cast<uint16_t>(std::chrono::weekday{days}.c_encoding());
    t.hour = static_cast<uint16_t>(second_of_day / 3600);
    t.minute = static_cast<uint16_t>(second_of_day / 60 % 60);
    t.second = static_cast<uint16_t>(second_of_day % 60);
    t.milliseconds = static_cast<uint16_t>(milliseconds);
}

int64_t FloorDiv(int64_t a, int64_t b) {
    int64_t q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

// The local broken-down time of a Unix second. localtime_r reads the zone
// only once per process, so callers run tzset() first to pick up changes.
bool LocalTm(int64_t unix_seconds, std::tm& out) {
    time_t t = static_cast<time_t>(unix_seconds);
    if (static_cast<int64_t>(t) != unix_seconds) return false;
    return localtime_r(&t, &out) != nullptr;
}

int64_t UnixSecondsOf(int64_t ticks) { return FloorDiv(ticks, kTicksPerSecond) - kUnixEpochSeconds; }

}  // namespace

bool SystemTimeToFileTime(const SystemTime& time, int64_t& ticks) {
    if (time.year < 1601 || time.year > 30827 || !TimeOfDayValid(time)) return false;
    int64_t day_number;
    if (!CalendarDay(time, day_number)) return false;
    int64_t seconds = (day_number - kFileTimeEpochDay) * kSecondsPerDay + time.hour * 3600 +
                      time.minute * 60 + time.second;
    ticks = seconds * kTicksPerSecond + int64_t(time.milliseconds) * 10'000;
    return true;
}

bool FileTimeToSystemTime(int64_t ticks, SystemTime& time) {
    if (ticks < 0) return false;
    int64_t seconds = ticks / kTicksPerSecond;
    int32_t milliseconds = static_cast<int32_t>(ticks % kTicksPerSecond / 10'000);
    FillFromDay(seconds / kSecondsPerDay + kFileTimeEpochDay, seconds % kSecondsPerDay, milliseconds,
                time);
    return true;
}

bool SystemTimeToTzSpecificLocalTime(const SystemTime& utc, SystemTime& local) {
    int64_t ticks;
    if (!SystemTimeToFileTime(utc, ticks)) return false;
    int32_t bias;
    return FileTimeToLocalTime(ticks, local, bias);
}

bool FileTimeToLocalTime(int64_t ticks, SystemTime& local, int32_t& bias) {
    if (ticks < 0) return false;
    std::tm tm{};
    tzset();
    if (!LocalTm(UnixSecondsOf(ticks), tm)) return false;
    int64_t year_number = int64_t(tm.tm_year) + 1900;
    if (year_number < 0 || year_number > 0xFFFF) return false;
    SystemTime t;
    t.year = static_cast<uint16_t>(year_number);
    t.month = static_cast<uint16_t>(tm.tm_mon + 1);
    t.day = static_cast<uint16_t>(tm.tm_mday);
    t.dayOfWeek = static_cast<uint16_t>(tm.tm_wday);
    t.hour = static_cast<uint16_t>(tm.tm_hour);
    t.minute = static_cast<uint16_t>(tm.tm_min);
    // A leap second, should the zone data carry one, reads as :59.
    t.second = static_cast<uint16_t>(tm.tm_sec > 59 ? 59 : tm.tm_sec);
    t.milliseconds = static_cast<uint16_t>(ticks % kTicksPerSecond / 10'000);
    local = t;
    bias = static_cast<int32_t>(-(tm.tm_gmtoff / 60));
    return true;
}

bool SystemTimeToVariantTime(const SystemTime& time, double& date) {
    if (time.year < 100 || time.year > 9999 || !TimeOfDayValid(time)) return false;
    int64_t day_number;
    if (!CalendarDay(time, day_number)) return false;
    int64_t days = day_number - kDateEpochDay;
    double fraction = double(time.hour * 3600 + time.minute * 60 + time.second) / kSecondsPerDay;
    // Before the epoch the time of day still counts forwards, so it is
    // subtracted from the (negative) day.
    date = days >= 0 ? double(days) + fraction : double(days) - fraction;
    return true;
}

bool VariantTimeToSystemTime(double date, SystemTime& time) {
    // NaN fails both comparisons.
    if (!(date > double(kFirstDateDay - 1) && date < double(kLastDateDay + 1))) return false;
    double linear = date;
    if (date < 0) {
        double whole = std::trunc(date);
        linear = whole + (whole - date);
    }
    auto seconds = static_cast<int64_t>(std::llround(linear * double(kSecondsPerDay)));
    int64_t days = FloorDiv(seconds, kSecondsPerDay);
    if (days < kFirstDateDay || days > kLastDateDay) return false;
    FillFromDay(days + kDateEpochDay, seconds - days * kSecondsPerDay, 0, time);
    return true;
}

int64_t GetSystemTimeAsFileTime() {
    int64_t pinned = g_pinned_now.load(std::memory_order_relaxed);
    if (pinned >= 0) return pinned;
    auto since_epoch = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(since_epoch).count() * 10 +
           kUnixEpochTicks;
}

void PinCurrentTimeForTesting(int64_t ticks) {
    g_pinned_now.store(ticks < 0 ? -1 : ticks, std::memory_order_relaxed);
}

void GetLocalTime(SystemTime& time) {
    SystemTime utc;
    FileTimeToSystemTime(GetSystemTimeAsFileTime(), utc);
    if (!SystemTimeToTzSpecificLocalTime(utc, time)) time = utc;
}

TimeZoneInformation GetTimeZoneInformation(int64_t ticks) {
    TimeZoneInformation info;
    int64_t unix_seconds = UnixSecondsOf(ticks);
    std::tm now{};
    tzset();
    if (!LocalTm(unix_seconds, now)) return info;
    int64_t offset = now.tm_gmtoff;  // seconds east of UTC
    // The zone's other offset, if it has one: the nearest week within a year
    // on either side whose daylight flag and offset both differ.
    bool found = false;
    int64_t other = offset;
    constexpr int64_t kWeek = 7 * kSecondsPerDay;
    for (int64_t step = 1; step <= 53 && !found; ++step) {
        for (int64_t sign : {int64_t(1), int64_t(-1)}) {
            std::tm probe{};
            if (!LocalTm(unix_seconds + sign * step * kWeek, probe)) continue;
            if (probe.tm_isdst != now.tm_isdst && probe.tm_gmtoff != offset) {
                other = probe.tm_gmtoff;
                found = true;
                break;
            }
        }
    }
    // The standard offset is the one further west, whatever the zone data
    // calls daylight time (some zones flag their winter offset as such).
    int64_t standard = found && other < offset ? other : offset;
    int64_t daylight = found && other > offset ? other : offset;
    info.bias = static_cast<int32_t>(-(standard / 60));
    info.daylightBias = static_cast<int32_t>(-(daylight / 60)) - info.bias;
    info.daylightInForce = found && offset == daylight;
    return info;
}

}  // namespace kv::platform
