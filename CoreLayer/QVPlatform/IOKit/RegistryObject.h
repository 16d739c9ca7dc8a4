// What the registry keeps behind a handle: an entry of the tree or an iterator. Private to the
// registry's own sources.
#pragma once

#include <cstdint>

#include <string>
#include <vector>

#include "Registry.h"

namespace qv {

struct Registry::Object {
    enum class Kind { Entry, Iterator } kind = Kind::Entry;
    int retainCount = 1;

    // Entry
    std::string name;
    std::string className;
    Value properties;
    io_registry_entry_t parent = IO_OBJECT_NULL;
    std::vector<io_registry_entry_t> children;
    bool attached = true;
    // Change stamps (see Registry::changeStamp): when the entry's own properties or attachment
    // last changed, and when anything in its subtree last did.
    std::uint64_t ownStamp = 0;
    std::uint64_t subtreeStamp = 0;

    // Iterator
    std::vector<io_object_t> items;
    std::size_t position = 0;
    qvRegistryNotification* notification = nullptr;  // the notification that owns it, if any
};

}  // namespace qv
