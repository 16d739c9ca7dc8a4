// Plays a story's application actions on the run loop, each at its virtual time, on the observer
// the simulated application holds.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include "ApplicationAction.h"
#include "Foundation/JsonValue.h"
#include "RunLoop/RunLoop.h"

class QVDeviceObserver;

namespace qvdevice {

class ApplicationActionPlayer {
  public:
    // Called just before an action is performed (the simulator records it).
    using Observer = std::function<void(const ApplicationAction&)>;

    ApplicationActionPlayer(std::vector<ApplicationAction> actions,
                            std::weak_ptr<QVDeviceObserver> observer, Observer beforeEach);
    ~ApplicationActionPlayer();
    ApplicationActionPlayer(const ApplicationActionPlayer&) = delete;
    ApplicationActionPlayer& operator=(const ApplicationActionPlayer&) = delete;

    // Schedules every action at its time counted from `origin`; same-time actions keep their order.
    void schedule(qv::RunLoop& loop, double origin);

    // What the application calls for the action, as the framework names it.
    static void perform(const ApplicationAction& action, QVDeviceObserver& observer);
    // {"call": "setDefaultDevice:", "arguments": [1]} and the like.
    static qv::Json fields(const ApplicationAction& action);

  private:
    std::vector<ApplicationAction> actions_;
    std::weak_ptr<QVDeviceObserver> observer_;
    Observer beforeEach_;
    std::vector<std::shared_ptr<qv::Timer>> timers_;
};

}  // namespace qvdevice
