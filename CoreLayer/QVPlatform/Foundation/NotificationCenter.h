// qv::NotificationCenter: the process's default notification center (NSNotificationCenter's
// defaultCenter): post by name with an object and user info, observers by name. Observers may be
// removed, or added, while a notification is being delivered. One thread at a time.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Object.h"
#include "Value.h"

namespace qv {

struct Notification {
    std::string name;
    std::shared_ptr<Object> object;
    Value userInfo;
};

class NotificationCenter {
  public:
    using Observer = std::function<void(const Notification&)>;
    using Token = std::uint64_t;

    static NotificationCenter& defaultCenter();

    // An empty name observes every notification.
    Token addObserver(std::string name, Observer observer);
    void removeObserver(Token token);
    void post(const std::string& name, std::shared_ptr<Object> object = nullptr,
              Value userInfo = {});

  private:
    struct Entry {
        Token token;
        std::string name;
        std::shared_ptr<Observer> observer;
    };
    std::vector<Entry> entries_;
    Token nextToken_ = 1;
};

}  // namespace qv
