#include "ApplicationActionPlayer.h"

#include "Application/QVDeviceObserver.h"
#include "Application/QVPrioQueue.h"

namespace qvdevice {

ApplicationActionPlayer::ApplicationActionPlayer(std::vector<ApplicationAction> actions,
                                                 std::weak_ptr<QVDeviceObserver> observer,
                                                 Observer beforeEach)
    : actions_(std::move(actions)),
      observer_(std::move(observer)),
      beforeEach_(std::move(beforeEach)) {}

ApplicationActionPlayer::~ApplicationActionPlayer() {
    for (const auto& timer : timers_) {
        timer->invalidate();
    }
}

void ApplicationActionPlayer::schedule(qv::RunLoop& loop, double origin) {
    for (const auto& action : actions_) {
        const double delay = origin + action.at - loop.now();
        const ApplicationAction* target = &action;
        timers_.push_back(loop.performAfterDelay(delay < 0.0 ? 0.0 : delay, [this, target]() {
            auto observer = observer_.lock();
            if (!observer) {
                return;
            }
            if (beforeEach_) {
                beforeEach_(*target);
            }
            perform(*target, *observer);
        }));
    }
}

void ApplicationActionPlayer::perform(const ApplicationAction& action, QVDeviceObserver& observer) {
    using Kind = ApplicationAction::Kind;
    switch (action.kind) {
        case Kind::Stop:
            observer.stop();
            break;
        case Kind::Start:
            observer.start();
            break;
        case Kind::DevicesChanged:
            observer.devicesChanged();
            break;
        case Kind::StartQueue:
            QVPrioQueue::getInstance()->startExecution();
            break;
        case Kind::SetDefaultDevice:
            observer.setDefaultDevice(action.index);
            break;
        case Kind::SetAllowedDevicesRules:
            observer.setAllowedDevicesRules(action.rules);
            break;
        case Kind::SetAutorepeatNetInfo:
            observer.setAutorepeatNetInfo(action.flag);
            break;
    }
}

qv::Json ApplicationActionPlayer::fields(const ApplicationAction& action) {
    using Kind = ApplicationAction::Kind;
    qv::Json fields = qv::Json::object();
    switch (action.kind) {
        case Kind::Stop:
            fields["call"] = "stop";
            break;
        case Kind::Start:
            fields["call"] = "start";
            break;
        case Kind::DevicesChanged:
            fields["call"] = "devicesChanged:";
            break;
        case Kind::StartQueue:
            fields["call"] = "startExecution";
            break;
        case Kind::SetDefaultDevice:
            fields["call"] = "setDefaultDevice:";
            fields["arguments"] = qv::Json::array({action.index});
            break;
        case Kind::SetAllowedDevicesRules:
            fields["call"] = "setAllowedDevicesRules:";
            fields["arguments"] = qv::Json::array({qv::jsonFromValue(action.rules)});
            break;
        case Kind::SetAutorepeatNetInfo:
            fields["call"] = "setAutorepeatNetInfo:";
            fields["arguments"] = qv::Json::array({action.flag});
            break;
    }
    return fields;
}

}  // namespace qvdevice
