// The preference store as files under the daemon's root:
//   "<root>/var/lib/nightjar/preferences.plist"  the store, an XML property-list
//                                                 dictionary written only by the daemon
//   "<root>/etc/nightjar/forced.plist"            an administrator's dictionary of
//                                                 key -> forced value, read only
// A missing, empty, unreadable, oversized (over storedFileLimit()) or corrupt
// file reads as an empty dictionary; the fact is logged once per version of
// the file. The store's own file, when it holds something that cannot be read,
// is first renamed "preferences.plist.unreadable-<UTC date>" so that no write
// destroys it. Every write is atomic: a failed write leaves the previous file
// whole, and a store larger than the limit is never written.
#pragma once

#include <memory>
#include <string>

#include "platform/preferences_store.h"

namespace nightjar::platform::linux_adapter {

// `root` is the daemon's root ("/" or $NIGHTJAR_ROOT). Creates
// "<root>/var/lib/nightjar" (mode 0755) when missing and reads both files.
// Never fails: a store whose folder cannot be made works in memory only.
std::unique_ptr<PreferencesStore> makeFilePreferencesStore(std::string root);

}  // namespace nightjar::platform::linux_adapter
