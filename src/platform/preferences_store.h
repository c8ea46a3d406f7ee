// The daemon's preference store: one machine-wide dictionary of settings and
// saved state, plus the keys an administrator has forced.
#pragma once

#include <cstddef>
#include <string_view>

#include "platform/stored_file_limit.h"
#include "plist/value.h"

namespace nightjar::platform {

// All methods: run-loop thread only. The store keeps an in-memory view of what
// it last read or wrote; only `synchronize` and `setValue` look at storage.
class PreferencesStore {
 public:
  virtual ~PreferencesStore() = default;
  PreferencesStore() = default;
  PreferencesStore(const PreferencesStore&) = delete;
  PreferencesStore& operator=(const PreferencesStore&) = delete;

  // The value under `key` in the view: the forced value when the key is
  // forced, else the stored value, else none. Never touches storage.
  virtual plist::Value copyValue(std::string_view key) = 0;

  // Stores `value` under `key`, or removes the key when `value` is none, and
  // writes the whole store to storage at once. Changes made in storage by
  // another process since the last look are taken in first. Answers false when
  // the write failed: storage then keeps its previous contents whole, the view
  // keeps the change, and the next `synchronize` tries the write again. Does
  // not consult the forced keys: a forced key still reads as its forced value.
  virtual bool setValue(std::string_view key, const plist::Value& value) = 0;

  // Re-reads storage and the forced keys when they changed since the last look
  // (changes made by another process win over a write that has not succeeded
  // yet); otherwise retries a failed write. Unreadable storage reads as empty.
  virtual void synchronize() = 0;

  // Whether an administrator has forced `key`, as of the last look at storage.
  virtual bool isForced(std::string_view key) = 0;

  // The size of the view in its stored form, as of the last read of storage
  // or the last write (successful or not); 0 for a store kept in memory only.
  virtual std::size_t storedBytes() const { return 0; }

  // The largest stored form that is written and read back. A write that would
  // pass it fails as a failed write does, so storage keeps what it holds.
  virtual std::size_t maxStoredBytes() const { return kMaxStoredFileBytes; }
};

}  // namespace nightjar::platform
