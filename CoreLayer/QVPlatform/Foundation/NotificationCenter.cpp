#include "NotificationCenter.h"

#include <algorithm>

namespace qv {

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter center;
    return center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string name, Observer observer) {
    Token token = nextToken_++;
    entries_.push_back({token, std::move(name), std::make_shared<Observer>(std::move(observer))});
    return token;
}

void NotificationCenter::removeObserver(Token token) {
    entries_.erase(std::remove_if(entries_.begin(), entries_.end(),
                                  [token](const Entry& e) { return e.token == token; }),
                   entries_.end());
}

void NotificationCenter::post(const std::string& name, std::shared_ptr<Object> object,
                              Value userInfo) {
    Notification note{name, std::move(object), std::move(userInfo)};
    // Deliver to the observers registered now; one removed during delivery is skipped.
    std::vector<Entry> snapshot = entries_;
    for (const Entry& entry : snapshot) {
        if (!entry.name.empty() && entry.name != name) {
            continue;
        }
        bool stillRegistered = std::any_of(entries_.begin(), entries_.end(),
                                           [&](const Entry& e) { return e.token == entry.token; });
        if (stillRegistered) {
            (*entry.observer)(note);
        }
    }
}

}  // namespace qv
