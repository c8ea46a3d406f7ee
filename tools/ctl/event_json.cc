#include "event_json.h"

#include <algorithm>

#include "human_time.h"
#include "plist/base64.h"

namespace nightjar::ctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr char kDataKey[] = "base64";

plist::Value dataFromJson(const Json& json, const std::string& path, std::string& error) {
  const std::optional<plist::Bytes> bytes =
      plist::decodeBase64(json.at(kDataKey).get<std::string>());
  if (!bytes)
    error = path + ": not base64";
  return bytes ? plist::Value::data(*bytes) : plist::Value();
}

plist::Value convert(const Json& json, const std::string& path, std::string& error) {
  switch (json.type()) {
    case Json::value_t::object: {
      if (json.size() == 1 && json.contains(kDataKey) && json.at(kDataKey).is_string())
        return dataFromJson(json, path, error);
      plist::Dictionary members;
      for (const auto& [key, member] : json.items()) {
        plist::Value value = convert(member, path.empty() ? key : path + "." + key, error);
        if (!value)
          return {};
        members.emplace(key, std::move(value));
      }
      return plist::Value::dictionary(std::move(members));
    }
    case Json::value_t::array: {
      plist::Array elements;
      for (std::size_t i = 0; i < json.size(); ++i) {
        plist::Value value = convert(json[i], path + "[" + std::to_string(i) + "]", error);
        if (!value)
          return {};
        elements.push_back(std::move(value));
      }
      return plist::Value::array(std::move(elements));
    }
    case Json::value_t::string: {
      const std::string& text = json.get_ref<const std::string&>();
      if (const std::optional<plist::AbsoluteTime> date = parseIso(text))
        return plist::Value::date(*date);
      return plist::Value::string(text);
    }
    case Json::value_t::boolean:
      return plist::Value::boolean(json.get<bool>());
    case Json::value_t::number_integer:
      return plist::Value::integer(json.get<std::int64_t>());
    case Json::value_t::number_unsigned:
      if (json.get<std::uint64_t>() <= static_cast<std::uint64_t>(INT64_MAX))
        return plist::Value::integer(static_cast<std::int64_t>(json.get<std::uint64_t>()));
      break;
    case Json::value_t::number_float:
      return plist::Value::real(json.get<double>());
    default:
      break;
  }
  error = (path.empty() ? std::string("the document") : path) +
          ": null and numbers beyond 64 bits have no place in an event";
  return {};
}

// The whole text on one line.
std::string base64Line(const plist::Bytes& bytes) {
  std::string text =
      plist::encodeBase64(bytes, std::max<std::size_t>(4, (bytes.size() + 2) / 3 * 4), "");
  if (!text.empty())
    text.pop_back();
  return text;
}

}  // namespace

Json toJson(const plist::Value& value) {
  if (!value)
    return nullptr;
  switch (value.kind()) {
    case plist::Kind::Dictionary: {
      Json object = Json::object();
      for (const auto& [key, member] : *value.asDictionary())
        object[key] = toJson(member);
      return object;
    }
    case plist::Kind::Array: {
      Json array = Json::array();
      for (const plist::Value& element : *value.asArray())
        array.push_back(toJson(element));
      return array;
    }
    case plist::Kind::String:
      return *value.asString();
    case plist::Kind::Integer:
      return *value.asInteger();
    case plist::Kind::Real:
      return *value.numberAsDouble();
    case plist::Kind::Boolean:
      return *value.asBoolean();
    case plist::Kind::Date:
      return formatIso(*value.asDate());
    case plist::Kind::Data:
      return Json{{kDataKey, base64Line(*value.asData())}};
  }
  return nullptr;
}

plist::Value fromJson(const Json& json, std::string& error) {
  return convert(json, "", error);
}

}  // namespace nightjar::ctl
