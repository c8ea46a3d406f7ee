#include "plist/xml_write_cache.h"

#include <utility>

namespace nightjar::plist {

const std::string* XmlWriteCache::find(const Value& value, std::size_t depth) {
  auto kept = kept_.find(Key{value.identity(), depth});
  if (kept == kept_.end())
    return nullptr;
  if (kept->second.write != write_)
    ++used_;
  kept->second.write = write_;
  return &kept->second.bytes;
}

const std::string& XmlWriteCache::keep(const Value& value, std::size_t depth, std::string bytes) {
  bytes.shrink_to_fit();
  auto [entry, added] =
      kept_.insert_or_assign(Key{value.identity(), depth}, Form{value, std::move(bytes), write_});
  return entry->second.bytes;
}

void XmlWriteCache::endWrite() {
  // A sweep visits every form: done only once enough of them are stale, so a
  // write that changed one record does not pay for all the others.
  if (kept_.size() - used_ > used_ / 8) {
    const unsigned write = write_;
    std::erase_if(kept_, [write](const auto& entry) { return entry.second.write != write; });
  }
  ++write_;
  used_ = 0;
}

}  // namespace nightjar::plist
