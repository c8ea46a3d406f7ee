#include "plist/describe.h"

#include <cmath>
#include <cstdio>
#include <ctime>

namespace nightjar::plist {

namespace {

// English month abbreviations, so that the text does not follow the locale.
constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// The date in the local zone as "YYYY MMM D HH:MM:SS"; empty when the date
// cannot be placed on the calendar (not finite, or beyond time_t).
std::string localDateText(AbsoluteTime date) {
  const double unixSeconds = std::floor(date) + kAbsoluteTimeIntervalSince1970;
  // 2^62 keeps the conversion to time_t defined; such dates are nonsense anyway.
  if (!std::isfinite(unixSeconds) || std::fabs(unixSeconds) > 4.6e18) {
    return {};
  }
  const std::time_t seconds = static_cast<std::time_t>(unixSeconds);
  std::tm local{};
  if (localtime_r(&seconds, &local) == nullptr) {
    return {};
  }
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "%lld %s %d %02d:%02d:%02d",
                static_cast<long long>(local.tm_year) + 1900, kMonths[local.tm_mon], local.tm_mday,
                local.tm_hour, local.tm_min, local.tm_sec);
  return buffer;
}

std::string realText(double number) {
  // The longest "%lf" text is DBL_MAX's: a sign, 309 digits and 7 more.
  char buffer[400];
  std::snprintf(buffer, sizeof buffer, "%lf", number);
  return buffer;
}

std::string quoted(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out.append("\"").append(text).append("\"");
  return out;
}

void describeInto(const Value& value, std::string& out);

void describeArray(const Array& elements, std::string& out) {
  out += '[';
  for (std::size_t i = 0; i < elements.size(); ++i) {
    if (i > 0) {
      out += ',';
    }
    describeInto(elements[i], out);
  }
  out += ']';
}

void describeDictionary(const Dictionary& entries, std::string& out) {
  out += '{';
  bool first = true;
  for (const auto& [key, member] : entries) {
    if (!first) {
      out += ',';
    }
    first = false;
    out += quoted(key);
    out += "=>";
    describeInto(member, out);
  }
  out += '}';
}

void describeInto(const Value& value, std::string& out) {
  if (value.isNone()) {
    out += "(null)";
    return;
  }
  switch (value.kind()) {
    case Kind::String:
      out += quoted(*value.asString());
      return;
    case Kind::Real:
      out += realText(*value.numberAsDouble());
      return;
    case Kind::Integer:
      out += std::to_string(*value.asInteger());
      return;
    case Kind::Boolean:
      out += *value.asBoolean() ? '1' : '0';
      return;
    case Kind::Data:
      out += quoted(std::to_string(value.asData()->size()) + " bytes of data");
      return;
    case Kind::Date:
      if (std::string text = localDateText(*value.asDate()); !text.empty()) {
        out += quoted(text);
      }
      return;
    case Kind::Array:
      return describeArray(*value.asArray(), out);
    case Kind::Dictionary:
      return describeDictionary(*value.asDictionary(), out);
  }
}

}  // namespace

std::string describeValue(const Value& value) {
  std::string out;
  describeInto(value, out);
  return out;
}

}  // namespace nightjar::plist
