#include "FrameworkEventTap.h"

#include <string>

namespace qvdevice {

FrameworkEventTap::FrameworkEventTap(EventSink& sink) : sink_(sink), installation_(channels()) {
    notificationToken_ = qv::NotificationCenter::defaultCenter().addObserver(
        "", [this](const qv::Notification& note) {
            sink_.add("notification", qv::Json{{"name", note.name}});
        });
}

FrameworkEventTap::~FrameworkEventTap() {
    qv::NotificationCenter::defaultCenter().removeObserver(notificationToken_);
}

qv::Seams FrameworkEventTap::channels() {
    qv::Seams seams;
    seams.namedLog = [this](const std::string& log, const std::string& message) {
        if (muted_) {
            return;
        }
        qv::Json fields = qv::Json::object();
        fields["log"] = log;
        fields["message"] = message;
        sink_.add("log", std::move(fields));
    };
    seams.systemLog = [this](const std::string& line) {
        if (!muted_) {
            sink_.add("syslog", qv::Json{{"message", line}});
        }
    };
    seams.standardOutput = [this](const std::string& line) {
        if (!muted_) {
            sink_.add("stdout", qv::Json{{"message", line}});
        }
    };
    return seams;
}

}  // namespace qvdevice
