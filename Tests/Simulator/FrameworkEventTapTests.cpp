// The output wiring that `simulate` and `run` share: each channel and each notification becomes
// its own kind of event, muting silences the channels but not the notifications, and the channels
// an embedding test had installed are back afterwards (not cleared).
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Foundation/Logging.h"
#include "Foundation/NotificationCenter.h"
#include "qvdevice/EventSink.h"
#include "qvdevice/FrameworkEventTap.h"

namespace {

class EventList : public qvdevice::EventSink {
  public:
    using EventSink::add;
    void add(std::string kind, qv::Json fields, std::string) override {
        events.push_back(kind + " " + fields.dump());
    }
    std::vector<std::string> events;
};

TEST(FrameworkEventTap, TurnsChannelsAndNotificationsIntoEventsAndPutsTheOldSinksBack) {
    std::vector<std::string> before;
    qv::setSystemLogSink([&before](const std::string& line) { before.push_back(line); });
    EventList sink;
    {
        qvdevice::FrameworkEventTap tap(sink);
        qv::logToNamedLog("DeviceRecognition", "named");
        qv::logToSystemLog("system");
        qv::writeToStandardOutput("out");
        qv::NotificationCenter::defaultCenter().post("SomethingHappened");
        tap.muteChannels();
        qv::logToNamedLog("DeviceRecognition", "muted");
        qv::logToSystemLog("muted");
        qv::writeToStandardOutput("muted");
        qv::NotificationCenter::defaultCenter().post("StillHeard");
    }
    qv::logToSystemLog("after");
    qv::NotificationCenter::defaultCenter().post("NotHeard");
    qv::setSystemLogSink({});

    EXPECT_EQ(sink.events, (std::vector<std::string>{
                               R"(log {"log":"DeviceRecognition","message":"named"})",
                               R"(syslog {"message":"system"})", R"(stdout {"message":"out"})",
                               R"(notification {"name":"SomethingHappened"})",
                               R"(notification {"name":"StillHeard"})"}));
    EXPECT_EQ(before, std::vector<std::string>{"after"});
    EXPECT_FALSE(static_cast<bool>(qv::namedLogSink()));
    EXPECT_FALSE(static_cast<bool>(qv::standardOutputSink()));
}

}  // namespace
