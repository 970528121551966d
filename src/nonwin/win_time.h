// Automation dates (days since 1899-12-30, local wall-clock time) and date patterns.
#pragma once

#include "VariantPub.h"
#include "cstring.h"

constexpr DATE DATE_1970 = 25569.0;
constexpr double SECONDS_PER_DAY = 86400.0;

/// The automation date of a text "year-month-day hour:minute:second". Fields that are missing are those of
/// 2000-01-01 00:00:00; 0.0 when there is none at all.
DATE StrToDate(const char* szText);
/// "year-month-day hour:minute:second" of an automation date; empty when the system knows no such time.
void DateToText(DATE date, CString& strText);
/// Fills a pattern: "$Y" "$M" "$D" "$h" "$m" "$s" with the plain number, or, where a field has none of these,
/// "$2Y" "$2M" ... with two places at least.
void DateToStr(int nYear, int nMonth, int nDay, int nHour, int nMinute, int nSecond, const CString& strFormat,
               CString& strTime);
