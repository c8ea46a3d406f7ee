// QueueControllerList: the process-wide ordered list of queue controllers,
// with routing by trigger type and the snapshot of every controller's queue.
#include <cstdint>
#include <memory>
#include <vector>

#include "model/event.h"
#include "plist/xml.h"
#include "scheduling/queue_controller.h"

namespace nightjar::scheduling {

struct QueueControllerList {
  std::vector<QueueController*> controllers;  // owned, in order of appending
};

namespace {

std::unique_ptr<QueueControllerList>& listSlot() {
  static std::unique_ptr<QueueControllerList> slot;
  return slot;
}

// The length of a valid UTF-8 sequence of characters that XML 1.0 can carry,
// starting at `text[at]`, or 0. Control characters other than tab, line feed
// and carriage return, surrogates, U+FFFE and U+FFFF have no XML form.
std::size_t xmlCharacterLength(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[at + i]); };
  const std::uint8_t lead = byte(0);
  if (lead < 0x80)
    return lead >= 0x20 || lead == '\t' || lead == '\n' || lead == '\r' ? 1 : 0;
  const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : lead >= 0xC2 ? 2 : 0;
  if (length == 0 || lead > 0xF4 || at + length > text.size())
    return 0;
  std::uint32_t code = lead & (0x7F >> length);
  for (std::size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xC0) != 0x80)
      return 0;
    code = code << 6 | (byte(i) & 0x3F);
  }
  static constexpr std::uint32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool valid = code >= kShortest[length] && code <= 0x10FFFF &&
                     !(code >= 0xD800 && code <= 0xDFFF) && code != 0xFFFE && code != 0xFFFF;
  return valid ? length : 0;
}

bool isXmlText(std::string_view text) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t length = xmlCharacterLength(text, at);
    if (length == 0)
      return false;
    at += length;
  }
  return true;
}

// Whether the XML writer can write `value` so that the reader takes it back:
// no none member, text that XML can carry, nesting within the reader's limit.
bool isWritable(const plist::Value& value, std::size_t depth) {
  if (!value || depth > plist::XmlLimits{}.maxDepth)
    return false;
  if (const std::string* text = value.asString())
    return isXmlText(*text);
  if (const plist::Array* elements = value.asArray()) {
    for (const plist::Value& element : *elements) {
      if (!isWritable(element, depth + 1))
        return false;
    }
  }
  if (const plist::Dictionary* entries = value.asDictionary()) {
    for (const auto& [key, member] : *entries) {
      if (!isXmlText(key) || !isWritable(member, depth + 1))
        return false;
    }
  }
  return true;
}

}  // namespace

void queueControllerListSetUp() {
  if (listSlot() == nullptr)
    listSlot() = std::make_unique<QueueControllerList>();
}

void queueControllerListTearDown() {
  std::unique_ptr<QueueControllerList> list = std::move(listSlot());
  if (list == nullptr)
    return;
  for (QueueController* controller : list->controllers)
    queueControllerDestroy(controller);
}

QueueControllerList* queueControllerListGet() {
  return listSlot().get();
}

// Without a list nobody could ever reach the controller again: it is
// destroyed at once rather than leaked.
void queueControllerListAppend(QueueControllerList* list, QueueController* controller) {
  if (controller == nullptr)
    return;
  if (list == nullptr) {
    queueControllerDestroy(controller);
    return;
  }
  list->controllers.push_back(controller);
}

QueueController* queueControllerListFindForEvent(QueueControllerList* list,
                                                 const plist::Value& event) {
  if (list == nullptr)
    return nullptr;
  const std::string* type = model::eventTriggerType(event).asString();
  if (type == nullptr)
    return nullptr;
  for (QueueController* controller : list->controllers) {
    if (queueControllerAccepts(controller, *type))
      return controller;
  }
  return nullptr;
}

QueueController* queueControllerListFindHolding(QueueControllerList* list,
                                                const plist::Value& uniqueId) {
  if (list == nullptr || !uniqueId)
    return nullptr;
  for (QueueController* controller : list->controllers) {
    if (queueControllerIndexOf(controller, uniqueId) >= 0)
      return controller;
  }
  return nullptr;
}

void queueControllerListRemoveAll(QueueControllerList* list) {
  if (list == nullptr)
    return;
  for (QueueController* controller : list->controllers)
    queueControllerRemoveAll(controller);
}

plist::Value queueControllerListCopyQueues(QueueControllerList* list) {
  plist::Dictionary queues;
  if (list != nullptr) {
    for (QueueController* controller : list->controllers) {
      plist::Value events = queueControllerCopyEvents(controller);
      if (isWritable(events, /*depth=*/1))
        queues.insert_or_assign(std::string(queueControllerName(controller)), std::move(events));
    }
  }
  return plist::Value::dictionary(std::move(queues));
}

void queueControllerListRestoreQueues(QueueControllerList* list, const plist::Value& queues) {
  if (list == nullptr || !queues.isDictionary())
    return;
  for (QueueController* controller : list->controllers) {
    const plist::Value events = queues.get(queueControllerName(controller));
    if (events)
      queueControllerReplaceAll(controller, events);
  }
}

}  // namespace nightjar::scheduling
