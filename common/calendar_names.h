// calendar_names.h - the English day and month abbreviations that the
// daemon's time texts use (the start-up banner, the web pages' HTTP dates).
// Constant tables; no state.
#ifndef MANAGER_SVC_CALENDAR_NAMES_H
#define MANAGER_SVC_CALENDAR_NAMES_H

// Indexed by struct tm's tm_wday and tm_mon.
constexpr const char* const WEEKDAY_NAMES[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr const char* const MONTH_NAMES[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                             "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
constexpr int MONTH_COUNT = 12;
// struct tm counts years from this one.
constexpr int TM_YEAR_BASE = 1900;

#endif
