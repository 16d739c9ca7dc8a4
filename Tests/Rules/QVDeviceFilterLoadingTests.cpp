#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <set>
#include <string>
#include <vector>

#include "Foundation/Logging.h"
#include "Rules/NSData_Cipher.h"
#include "Rules/QVDeviceFilter.h"
#include "RulesTestSupport.h"

namespace {

const char* const kAllowOnly5059 =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><array><dict>"
    "<key>QuorvelID</key><integer>5059</integer></dict></array></plist>\n";

class NamedLogCapture {
  public:
    NamedLogCapture() {
        qv::setNamedLogSink([this](const std::string& log, const std::string& message) {
            lines.push_back(log + ": " + message);
        });
    }
    ~NamedLogCapture() { qv::setNamedLogSink(nullptr); }
    std::vector<std::string> lines;
};

QVDeviceFilterSubject device(std::int32_t quorvelID) {
    return {quorvelID, 0, 0, {}, nullptr};
}

TEST(QVDeviceFilterLoadingTests, DirectoryGivesOneFilterPerPlistFile) {
    rulestest::TemporaryDirectory dir;
    rulestest::writeFile(dir.file("a.plist"), kAllowOnly5059);
    rulestest::writeFile(dir.file("b.PLIST"), kAllowOnly5059);
    rulestest::writeFile(dir.file("c.txt"), kAllowOnly5059);
    std::filesystem::create_directory(dir.file("d.plist"));
    std::string oldStyle = "( { QuorvelID = 197; } )";
    rulestest::writeFile(dir.file("com.example.Connect.plist"),
                         dataEncryptedWithPass(qv::Data(oldStyle.begin(), oldStyle.end()),
                                               QVDeviceFilter::kRulesPassPhrase));

    auto filters = QVDeviceFilter::filtersWithAllowedDeviceRulesInDirectory(dir.path());
    ASSERT_TRUE(filters.has_value());
    ASSERT_EQ(filters->size(), 2u);
    std::set<std::string> identifiers;
    for (const auto& filter : *filters) {
        identifiers.insert(filter->identifierOfApplicationToLaunch().value_or("(none)"));
    }
    EXPECT_EQ(identifiers, (std::set<std::string>{"a", "com.example.Connect"}));

    auto applications = QVDeviceFilter::applicationsToLaunchForDevice(device(197), *filters);
    EXPECT_EQ(applications, std::vector<std::string>{"com.example.Connect"});

    EXPECT_FALSE(QVDeviceFilter::filtersWithAllowedDeviceRulesInDirectory(dir.file("missing")));
    EXPECT_FALSE(QVDeviceFilter::filtersWithAllowedDeviceRulesInDirectory(dir.file("a.plist")));
    EXPECT_EQ(QVDeviceFilter::filterWithPathToAllowedDeviceRules(dir.file("missing.plist")),
              nullptr);
}

TEST(QVDeviceFilterLoadingTests, UndecipherableOrUnreadableFilesAllowEverything) {
    NamedLogCapture log;
    rulestest::TemporaryDirectory dir;
    // Enciphered with another pass phrase: neither deciphers nor parses as text.
    std::string rules = kAllowOnly5059;
    rulestest::writeFile(dir.file("other.plist"),
                         dataEncryptedWithPass(qv::Data(rules.begin(), rules.end()), "Jonks"));
    auto filter = QVDeviceFilter::filterWithPathToAllowedDeviceRules(dir.file("other.plist"));
    ASSERT_NE(filter, nullptr);
    EXPECT_TRUE(filter->allowedDeviceRules().isNil());
    EXPECT_EQ(filter->identifierOfApplicationToLaunch(), "other");
    EXPECT_EQ(filter->isAllowedDevice(device(197)), 2);
    ASSERT_EQ(log.lines.size(), 1u);
    EXPECT_EQ(log.lines[0],
              "DeviceRecognition: Error: Could not convert rules file into property list: " +
                  dir.file("other.plist"));

    // A directory, an empty file and (unless we are root) a file we may not read.
    log.lines.clear();
    std::filesystem::create_directory(dir.file("dir.plist"));
    EXPECT_TRUE(
        QVDeviceFilter::tryToGetPropertyListFromContentsOfFile(dir.file("dir.plist")).isNil());
    rulestest::writeFile(dir.file("empty.plist"), std::string());
    EXPECT_TRUE(
        QVDeviceFilter::tryToGetPropertyListFromContentsOfFile(dir.file("empty.plist")).isNil());
    EXPECT_EQ(log.lines.size(), 2u);

    // A FIFO among the rules has no writer: reading it must not hold up the host. Should the read
    // wait after all, a writer comes along after five seconds so that the test fails, not hangs.
    ASSERT_EQ(mkfifo(dir.file("pipe.plist").c_str(), 0600), 0);
    auto read = std::async(std::launch::async, [&] {
        return QVDeviceFilter::tryToGetPropertyListFromContentsOfFile(dir.file("pipe.plist"));
    });
    if (read.wait_for(std::chrono::seconds(5)) == std::future_status::timeout) {
        ADD_FAILURE() << "reading a FIFO waited for a writer";
        int writer = open(dir.file("pipe.plist").c_str(), O_WRONLY | O_NONBLOCK);
        close(writer);
    }
    EXPECT_TRUE(read.get().isNil());
    EXPECT_EQ(log.lines.size(), 3u);
    std::filesystem::remove(dir.file("pipe.plist"));

    rulestest::writeFile(dir.file("secret.plist"), kAllowOnly5059);
    chmod(dir.file("secret.plist").c_str(), 0);
    if (access(dir.file("secret.plist").c_str(), R_OK) != 0) {
        EXPECT_TRUE(QVDeviceFilter::tryToGetPropertyListFromContentsOfFile(dir.file("secret.plist"))
                        .isNil());
        auto directory = QVDeviceFilter::filtersWithAllowedDeviceRulesInDirectory(dir.path());
        ASSERT_TRUE(directory.has_value());
        EXPECT_EQ(directory->size(), 2u);  // other and empty; the unreadable one is passed over
    }
}

}  // namespace
