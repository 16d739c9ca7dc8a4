// Thousands of random plugs, port appearances and unplugs over several sticks, checked against
// what must hold whatever the order: no device announced twice while present, every announced
// device that leaves reported missing exactly once, nothing left over once everything is gone.
#include <gtest/gtest.h>

#include <map>
#include <random>

#include "StoryBuilder.h"

using qvtest::StickSpec;
using qvtest::StoryBuilder;

namespace {

std::vector<StickSpec> sticks() {
    std::vector<StickSpec> result;
    const struct {
        int vendor, product;
    } models[] = {{0x12D1, 0x1406}, {0x12D1, 0x1004}, {0x19D2, 0x1002}, {0x12D1, 0x1406}};
    for (int i = 0; i < 4; ++i) {
        StickSpec stick;
        stick.id = "stick" + std::to_string(i);
        stick.vendorID = models[i].vendor;
        stick.productID = models[i].product;
        stick.locationID = 0x1A100000 + (i << 16);
        stick.productName = "Stick " + std::to_string(i);
        for (int port = 0; port < 3; ++port) {
            stick.ttys.push_back("ttyUSB" + std::to_string(i * 3 + port));
        }
        if (i % 2 == 0)
            stick.cdrom = "sr" + std::to_string(i);
        result.push_back(stick);
    }
    return result;
}

enum class Presence { Absent, Bare, Full };

}  // namespace

TEST(RandomizedStory, PlugAndUnplugInvariantsHold) {
    for (unsigned seed : {1u, 2u, 3u}) {
        std::mt19937 random(seed);
        auto all = sticks();
        std::vector<Presence> presence(all.size(), Presence::Absent);
        StoryBuilder story;
        double t = 0.5;
        for (int step = 0; step < 1200; ++step) {
            t += std::uniform_real_distribution<double>(0.05, 6.0)(random);
            std::size_t which = random() % all.size();
            const StickSpec& stick = all[which];
            switch (presence[which]) {
                case Presence::Absent:
                    if (random() % 3 == 0) {
                        story.plugBare(t, stick);
                        presence[which] = Presence::Bare;
                    } else {
                        story.plug(t, stick);
                        presence[which] = Presence::Full;
                    }
                    break;
                case Presence::Bare:
                    if (random() % 2 == 0) {
                        story.addPorts(t, stick);
                        presence[which] = Presence::Full;
                    } else {
                        story.unplug(t, stick.id);
                        presence[which] = Presence::Absent;
                    }
                    break;
                case Presence::Full:
                    story.unplug(t, stick.id);
                    presence[which] = Presence::Absent;
                    break;
            }
        }
        t += 1.0;
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (presence[i] != Presence::Absent)
                story.unplug(t, all[i].id);
        }
        auto result = story.run(t + 40.0);
        ASSERT_TRUE(result.ok);

        std::map<long long, bool> announced;
        std::size_t announcements = 0;
        for (const auto& event : result.events) {
            if (event.kind != "monitor")
                continue;
            const std::string call = event.fields.value("call", "");
            if (call != "noteDeviceBecameAvailable:" && call != "noteDeviceBecameMissing:")
                continue;
            long long location = event.device().value("_locationID", -1LL);
            if (call == "noteDeviceBecameAvailable:") {
                EXPECT_FALSE(announced[location])
                    << "seed " << seed << ": announced twice at " << event.t;
                announced[location] = true;
                ++announcements;
            } else {
                EXPECT_TRUE(announced[location])
                    << "seed " << seed << ": missing without announcement at " << event.t;
                announced[location] = false;
            }
        }
        for (const auto& [location, present] : announced) {
            EXPECT_FALSE(present) << "seed " << seed << ": location " << location
                                  << " never reported missing";
        }
        EXPECT_GT(announcements, 50u);
        EXPECT_EQ(result.pendingAtEnd, 0u);
        EXPECT_EQ(result.identifiedAtEnd, 0u);
    }
}
