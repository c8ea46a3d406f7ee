// The text forms of the scalar kinds inside <integer>, <real> and <date>.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "plist/value.h"

namespace nightjar::plist {

// Decimal or "0x" hexadecimal, with an optional sign; refused when empty,
// malformed or outside the int64 range.
std::optional<std::int64_t> parseIntegerText(std::string_view text);

// A decimal or exponent form as strtod reads it in the C locale, or "nan",
// "inf", "infinity" with an optional sign (any case); refused when malformed or
// out of the double range.
std::optional<double> parseRealText(std::string_view text);

// Exactly "YYYY-MM-DDTHH:MM:SSZ" in UTC with every field in its calendar range.
std::optional<AbsoluteTime> parseDateText(std::string_view text);

// The shortest text that reads back as exactly the same double; "nan",
// "+infinity" and "-infinity" for the special values.
std::string formatRealText(double number);

// "YYYY-MM-DDTHH:MM:SSZ" of the whole second at or before the date. Dates
// outside years 0000..9999 are written as the nearest end of that range, and a
// NaN date as the reference date (2001-01-01T00:00:00Z), since the form has no
// place for them.
std::string formatDateText(AbsoluteTime date);

}  // namespace nightjar::plist
