// qv::RegistryMatchingIndex: narrows the registry's matching to the entries and notifications
// that can match, so that a start-up with hundreds of registrations over a busy registry, and
// every hot-plug after it, does not test everything against everything.
//
// A matching dictionary is filed under the most selective thing it asks for: a numeric
// "idVendor" plus "idProduct", else a single IONameMatch name, else its provider class, else
// nothing ("general": always a candidate). Entries are filed under all three. The index only
// proposes candidates: the registry still decides each with its full matching rules and
// restores its own order (tree order for entries, arming order for notifications).
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "IOKitTypes.h"

struct qvRegistryNotification;

namespace qv {

class Registry;

class RegistryMatchingIndex {
  public:
    explicit RegistryMatchingIndex(const Registry& registry) : registry_(registry) {}

    // ---- attached entries ----
    void addEntry(io_registry_entry_t entry, const std::string& className, const std::string& name,
                  const Value& properties);
    void removeEntry(io_registry_entry_t entry, const std::string& className,
                     const std::string& name, const Value& properties);
    // The attached entries that can match, in no particular order; nullopt when the dictionary
    // asks for nothing the index files by (walk everything then).
    std::optional<std::vector<io_registry_entry_t>> entryCandidates(const Value& matching) const;

    // ---- armed notifications ----
    void addNotification(qvRegistryNotification* notification);
    void removeNotification(qvRegistryNotification* notification);
    // Appends the notifications that can match an entry of this class, name and properties, in
    // no particular order.
    void notificationCandidates(const std::string& className, const std::string& name,
                                const Value& properties,
                                std::vector<qvRegistryNotification*>& out) const;

  private:
    using ProductKey = std::pair<long long, long long>;
    struct ProductKeyHash {
        std::size_t operator()(const ProductKey& key) const {
            return std::hash<long long>()(key.first * 65537LL ^ key.second);
        }
    };
    enum class EntryProduct { None, Keyed, Odd };
    struct EntryProductKey {
        EntryProduct kind = EntryProduct::None;
        ProductKey key{};
    };

    static std::optional<ProductKey> productKeyOfMatching(const Value& matching);
    static EntryProductKey productKeyOfEntry(const Value& properties);
    static const std::string* nameOfMatching(const Value& matching);
    static const std::string* classOfMatching(const Value& matching);

    template <class Map>
    static void eraseFrom(Map& map, const typename Map::key_type& key,
                          qvRegistryNotification* notification);

    const Registry& registry_;

    std::unordered_map<ProductKey, std::set<io_registry_entry_t>, ProductKeyHash> entriesByProduct_;
    std::set<io_registry_entry_t> entriesWithOddProduct_;
    std::unordered_map<std::string, std::set<io_registry_entry_t>> entriesByName_;
    std::map<std::string, std::set<io_registry_entry_t>> entriesByClass_;

    using NotificationList = std::vector<qvRegistryNotification*>;
    std::unordered_map<ProductKey, NotificationList, ProductKeyHash> notificationsByProduct_;
    std::unordered_map<std::string, NotificationList> notificationsByName_;
    std::map<std::string, NotificationList> notificationsByClass_;
    NotificationList generalNotifications_;
};

}  // namespace qv
