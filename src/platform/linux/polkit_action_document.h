// A polkit action file ("<policyconfig>" with one "<action>" per right) read
// with expat and edited in place: removing or adding one action leaves every
// other byte of the file as it was, so an administrator's comments, vendor
// lines, descriptions and annotations survive -i and -u.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace nightjar::platform::linux_adapter {

// Anything larger is not an action file of this daemon: refused as corrupt.
inline constexpr std::size_t kMaxActionFileBytes = 1024 * 1024;

// polkit's implicit authorizations of one action; a missing element is "no",
// as polkit reads it.
struct PolkitDefaults {
  std::string allowAny = "no";
  std::string allowInactive = "no";
  std::string allowActive = "no";
  bool operator==(const PolkitDefaults&) const = default;
};

struct PolkitAction {
  std::string id;
  PolkitDefaults defaults;
  std::size_t begin = 0;  // the action element's bytes in the text
  std::size_t end = 0;
};

struct PolkitActionDocument {
  std::string text;
  std::vector<PolkitAction> actions;  // in file order
  // Where a new action goes: the start of the "</policyconfig>" tag, or npos
  // for an empty "<policyconfig/>".
  std::size_t closeTag = std::string::npos;
};

// Parses `text`; none when it is not a well-formed policyconfig document in
// UTF-8, is larger than kMaxActionFileBytes, nests deeper than 32 elements,
// declares entities or has a DOCTYPE with an internal subset.
std::optional<PolkitActionDocument> parsePolkitActions(std::string text);

// The text of a document without actions.
std::string emptyPolkitActionFile();

// The action element of `id`, indented for the top level of the file.
std::string renderPolkitAction(std::string_view id, const PolkitDefaults& defaults);

// `document`'s text with `action` (rendered) added as its last action.
std::string withPolkitAction(const PolkitActionDocument& document, std::string_view action);
// `document`'s text without `action` and the blank it stood on.
std::string withoutPolkitAction(const PolkitActionDocument& document, const PolkitAction& action);

}  // namespace nightjar::platform::linux_adapter
