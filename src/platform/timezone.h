// Time, the local zone and the two time encodings the mail code speaks:
//
// - ticks: 100-nanosecond intervals since 1601-01-01 00:00 UTC, signed 64-bit.
//   Valid times are 0 and above, as on the platform this code came from.
// - DATE: the automation runtime's date, a double counting days since
//   1899-12-30 00:00 with the time of day as the fraction. Before that day
//   the integer part counts backwards and the fraction still counts forwards
//   from midnight, so 1899-12-29 06:00 is -1.25 (not -0.75).
//
// SystemTime is the broken-down form both go through. The local zone is the
// process's (TZ, else /etc/localtime), read afresh on every call; tests pin it
// with setenv("TZ") and tzset, and pin "now" with PinCurrentTimeForTesting.
#pragma once

#include <cstdint>

namespace kv::platform {

constexpr int64_t kTicksPerSecond = 10'000'000;
constexpr int64_t kTicksPerMinute = 60 * kTicksPerSecond;
constexpr int64_t kTicksPerDay = 86'400 * kTicksPerSecond;
// Ticks at 1970-01-01 00:00 UTC.
constexpr int64_t kUnixEpochTicks = 11'644'473'600 * kTicksPerSecond;

// A calendar date and time of day, all 16-bit as the date parser fills them.
// dayOfWeek counts from Sunday = 0 and is only ever an output.
struct SystemTime {
    uint16_t year = 1601;
    uint16_t month = 1;
    uint16_t dayOfWeek = 1;
    uint16_t day = 1;
    uint16_t hour = 0;
    uint16_t minute = 0;
    uint16_t second = 0;
    uint16_t milliseconds = 0;
};

// Fields to ticks. False, leaving ticks untouched, unless year is 1601..30827,
// month 1..12, day within the month (Gregorian), hour < 24, minute and second
// < 60 and milliseconds < 1000. dayOfWeek is ignored.
bool SystemTimeToFileTime(const SystemTime& time, int64_t& ticks);

// Ticks to fields, dayOfWeek included. False, leaving time untouched, for
// negative ticks.
bool FileTimeToSystemTime(int64_t ticks, SystemTime& time);

// A UTC time to the local time of the same instant, by the zone rules that
// apply at that instant. False, leaving local untouched, when utc is not a
// valid time (as for SystemTimeToFileTime) or the zone cannot express it.
bool SystemTimeToTzSpecificLocalTime(const SystemTime& utc, SystemTime& local);

// The local time of the instant ticks (>= 0) with the bias in force then
// (minutes west of UTC, daylight time included), both from one reading of the
// zone. False, leaving both untouched, for negative ticks or a time the zone
// cannot express.
bool FileTimeToLocalTime(int64_t ticks, SystemTime& local, int32_t& bias);

// Fields to a DATE. The runtime's DATE carries whole seconds, so milliseconds
// are ignored, as is dayOfWeek. False, leaving date untouched, unless year is
// 100..9999 and the other fields are valid as for SystemTimeToFileTime.
bool SystemTimeToVariantTime(const SystemTime& time, double& date);

// A DATE to fields, rounded to the nearest second; milliseconds become 0.
// False, leaving time untouched, for NaN or a DATE outside
// 0100-01-01 00:00:00 .. 9999-12-31 23:59:59.
bool VariantTimeToSystemTime(double date, SystemTime& time);

// The present time in ticks: the system clock, or the pinned value.
int64_t GetSystemTimeAsFileTime();
// Pins the value GetSystemTimeAsFileTime returns; a negative value releases
// the pin. For tests.
void PinCurrentTimeForTesting(int64_t ticks);

// The present local time (GetSystemTimeAsFileTime in the local zone).
void GetLocalTime(SystemTime& time);

// The local zone at one instant, in the form mail headers need.
// Biases are minutes west of UTC (UTC+1 has bias -60); local time is
// UTC - (bias + daylightBias) while daylight time is in force, else UTC - bias.
// bias is the zone's standard offset: of the two offsets the zone uses within
// a year around the instant, the one further west. daylightBias is the step
// to the other one (usually -60), or 0 for a zone without daylight time.
struct TimeZoneInformation {
    int32_t bias = 0;
    int32_t daylightBias = 0;
    bool daylightInForce = false;
    // bias, plus daylightBias while daylight time is in force.
    int32_t CurrentBias() const { return daylightInForce ? bias + daylightBias : bias; }
};

// The zone at the instant ticks (ticks >= 0). A zone the platform cannot
// resolve reads as UTC.
TimeZoneInformation GetTimeZoneInformation(int64_t ticks);

}  // namespace kv::platform
