// Conversions between RFC 3339 text, time_t and struct tm.
//
// The functions write "YYYY-MM-DDThh:mm:ss.000Z". They read a text up to the seconds: a fraction,
// "Z" or a numeric offset is ignored, and missing fields count as 0. "Local offset at T" means T
// minus T's UTC fields read back as local standard time, in whole seconds, positive east of UTC.
//
// The results also depend on the clock and on the process's time zone. Callable from any thread.
#pragma once

#include <ctime>
#include <string>

#include "onedrive4b/export.h"

/// UTC text of a local time, which is normalised in place (mktime).
ONEDRIVE4B_EXPORT std::string TMToUTCRFC3339(std::tm* time);

/// UTC text of a moment.
ONEDRIVE4B_EXPORT std::string TimeToRFC3339(std::time_t time);
ONEDRIVE4B_EXPORT std::string TimeToUTCRFC3339(std::time_t time);
ONEDRIVE4B_EXPORT std::string NoAdjustOffsetForServerTime(std::time_t time);

/// UTC text of the moment plus the local offset on 3 October 2015.
ONEDRIVE4B_EXPORT std::string AdjustOffsetForServerTime(std::time_t time);

/// The text itself.
ONEDRIVE4B_EXPORT std::string NoAdjustServerTimeOffset(std::string time);

/// UTC text of `time`, read as local standard time, minus the local offset.
ONEDRIVE4B_EXPORT std::string AdjustServerTimeOffset(std::string time);

/// The moment at which local standard time shows the fields of `time`.
ONEDRIVE4B_EXPORT std::time_t RFC3339ToTM(std::string time);

/// The moment at which UTC shows the fields of `time`, where the zone knows no daylight saving.
ONEDRIVE4B_EXPORT std::time_t RFC3339ToLocalTM(std::string time);

/// Now in UTC with milliseconds and without zone: "YYYY-MM-DDThh:mm:ss.mmm".
ONEDRIVE4B_EXPORT std::string GetSystemTimeRfc3339();
