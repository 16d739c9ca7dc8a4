// The shipped device database against the built-in table and the model list it is generated
// from (scripts/device-models.tsv): every model has an entry, inheritance is sound, every port
// rule is well-formed, and the rules find each model's ports where Linux puts them.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Foundation/PropertyList.h"
#include "Foundation/Regex.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Knowledge/QVDeviceDatabaseChecker.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"
#include "QVDeviceKnowledge/QVDeviceTables.h"
#include "Support/DeviceModelsList.h"

namespace {

const std::string kKey = "DeviceDatabase.";

std::string databasePath() {
    return std::string(QV_SOURCE_DIR) +
           "/CoreLayer/QVDeviceObserver/Resources/DeviceDatabase.plist";
}

// The shipped file loaded the way the framework loads it; lookups climb the ancestors.
class Entries {
  public:
    explicit Entries(std::shared_ptr<QVDeviceDatabase> database) : database_(std::move(database)) {
        for (const auto& entry : database_->entries()) {
            EXPECT_TRUE(ids_.insert(static_cast<int>(entry->quorvelID())).second)
                << "duplicate " << entry->quorvelID();
        }
    }
    bool has(int id) const {
        return database_->hasEntryForQuorvelID(static_cast<std::uint32_t>(id));
    }
    const std::set<int>& ids() const { return ids_; }
    const QVDeviceDatabaseEntry& entry(int id) const {
        return *database_->entryForQuorvelID(static_cast<std::uint32_t>(id));
    }
    std::optional<std::string> lookup(int id, const std::string& key) const {
        const qv::Value& value = entry(id).objectForKey(kKey + key);
        if (value.isNil()) {
            return std::nullopt;
        }
        return value.isString() ? *value.asString() : value.description();
    }

  private:
    std::shared_ptr<QVDeviceDatabase> database_;
    std::set<int> ids_;
};

const std::set<std::string>& capabilityWords() {
    static const std::set<std::string> words = {
        "GroundInit",        "SignalStrength",
        "ConnectInit",       "DeviceRecognition",
        "RadioLinkAccess",   "DeviceInfo",
        "NetworkQuery",      "BandSelection",
        "QuickConnectInfo",  "SimSecurity",
        "PLMNMenuSelection", "ControlWWANInterface",
        "USSDServices",      "GPSControl",
        "GPSData",           "Unsolicited",
        "DataTransport",     "SMS",
        "Optional",          "ALL_CORE_PROCEDURE_CAPABILITIES",
        "ALL_CAPABILITIES"};
    return words;
}

std::vector<std::string> splitCapabilities(const std::string& text) {
    std::vector<std::string> words;
    std::size_t start = 0;
    while (!text.empty() && start <= text.size()) {
        std::size_t comma = text.find(", ", start);
        words.push_back(text.substr(start, comma - start));
        if (comma == std::string::npos) {
            break;
        }
        start = comma + 2;
    }
    return words;
}

bool isIndex(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// The path one port rule picks from `paths` (main pattern, then alternatives in order).
std::optional<std::string> pick(const Entries& entries, int id, int port,
                                const std::vector<std::string>& paths) {
    const std::string strategy = *entries.lookup(id, "PortIdentificationStrategy");
    auto find = [&](const std::string& pattern) -> std::optional<std::string> {
        if (strategy == "ByPortNumber") {
            std::size_t index = std::stoul(pattern);
            return index < paths.size() ? std::optional(paths[index]) : std::nullopt;
        }
        auto regex = qv::Regex::compile(pattern, false);
        for (const std::string& path : paths) {
            if (regex != nullptr && regex->matches(path)) {
                return path;
            }
        }
        return std::nullopt;
    };
    if (auto path = find(*entries.lookup(id, "Pattern.Port-" + std::to_string(port)))) {
        return path;
    }
    for (int a = 0;; ++a) {
        auto alternative = entries.lookup(
            id, "PatternAlternative-" + std::to_string(a) + ".Port-" + std::to_string(port));
        if (!alternative || alternative->empty()) {
            return std::nullopt;
        }
        if (auto path = find(*alternative)) {
            return path;
        }
    }
}

int describedPorts(const Entries& entries, int id) {
    int port = 0;
    while (entries.lookup(id, "Pattern.Port-" + std::to_string(port)).value_or("") != "") {
        ++port;
    }
    return port;
}

class ShippedDatabase : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        qv::PropertyListResult result = qv::readPropertyListFile(databasePath());
        ASSERT_TRUE(result.ok()) << result.error;
        ASSERT_TRUE(result.value.isArray());
        root_ = new qv::Value(result.value);
        database_ = QVDeviceDatabase::databaseFromFile(databasePath());
    }
    static void TearDownTestSuite() {
        delete root_;
        root_ = nullptr;
        database_.reset();
    }
    static qv::Value* root_;
    static std::shared_ptr<QVDeviceDatabase> database_;
};
qv::Value* ShippedDatabase::root_ = nullptr;
std::shared_ptr<QVDeviceDatabase> ShippedDatabase::database_;

TEST_F(ShippedDatabase, EveryTableIDHasAnEntryAndInheritanceIsSound) {
    Entries entries(database_);
    std::set<int> expected = {15354, 15355, 15356};
    for (std::size_t i = 0; i < kDevicesInfoRowCount; ++i) {
        if (devicesInfo[i].quorvelID > 0) {
            expected.insert(devicesInfo[i].quorvelID);
        }
    }
    ASSERT_EQ(expected.size(), 154u);
    for (int id : expected) {
        EXPECT_TRUE(entries.has(id)) << id;
    }
    EXPECT_EQ(entries.ids(), expected);

    for (int id : entries.ids()) {
        bool complete = false;
        entries.entry(id).ancestors(&complete);
        EXPECT_TRUE(complete) << "ancestor chain of " << id << " breaks (missing or cycle)";
    }
    // And what `qvdevice db check` finds: nothing.
    QVDeviceDatabaseChecker checker(*root_);
    for (const auto& problem : checker.problems()) {
        ADD_FAILURE() << problem.text();
    }
    EXPECT_EQ(checker.entryCount(), 154u);
}

TEST_F(ShippedDatabase, EveryRuleIsWellFormed) {
    Entries entries(database_);
    const std::set<std::string> manufacturers = {
        "Unknown", "Option",   "Novatel", "Huawei", "ZTE",   "SonyEricsson", "Nokia", "LG",
        "Samsung", "Motorola", "Siemens", "RIM",    "Icera", "Pantech",      "Sierra"};
    for (int id : entries.ids()) {
        SCOPED_TRACE(id);
        EXPECT_TRUE(manufacturers.count(entries.lookup(id, "Manufacturer").value_or("")));
        const std::string strategy = entries.lookup(id, "PortIdentificationStrategy").value_or("");
        ASSERT_TRUE(strategy == "ByPortNumber" || strategy == "ByRegex") << strategy;
        std::string disk = entries.lookup(id, "ShouldSupressDriverDisk").value_or("");
        EXPECT_TRUE(disk == "YES" || disk == "NO") << disk;

        int ports = describedPorts(entries, id);
        // No port rule may hide behind the first gap.
        for (int hidden = ports + 1; hidden < ports + 8; ++hidden) {
            EXPECT_EQ(entries.lookup(id, "Pattern.Port-" + std::to_string(hidden)).value_or(""),
                      "");
        }
        for (int port = 0; port < ports; ++port) {
            std::string pattern = *entries.lookup(id, "Pattern.Port-" + std::to_string(port));
            if (strategy == "ByPortNumber") {
                EXPECT_TRUE(isIndex(pattern)) << pattern;
            } else {
                EXPECT_NE(qv::Regex::compile(pattern, false), nullptr) << pattern;
                EXPECT_EQ(pattern.rfind("/dev/cu\\.", 0), 0u) << pattern;
            }
            for (int a = 0;; ++a) {
                auto alternative = entries.lookup(id, "PatternAlternative-" + std::to_string(a) +
                                                          ".Port-" + std::to_string(port));
                if (!alternative) {
                    break;
                }
                EXPECT_TRUE(strategy != "ByPortNumber" || isIndex(*alternative)) << *alternative;
            }
            std::string caps =
                entries.lookup(id, "Capabilities.Port-" + std::to_string(port)).value_or("");
            EXPECT_FALSE(caps.empty()) << "port " << port;
            for (const std::string& word : splitCapabilities(caps)) {
                EXPECT_TRUE(capabilityWords().count(word)) << word;
            }
        }
        for (const std::string& word :
             splitCapabilities(entries.lookup(id, "Capabilities.Ethernet-0").value_or(""))) {
            EXPECT_TRUE(capabilityWords().count(word)) << word;
        }
    }
}

// Builds each model's port paths as Linux names them and checks that the rules put the data
// port on the modem interface and the control capabilities on the control interface, with and
// without the ports the model may lack.
TEST_F(ShippedDatabase, RulesFindEachModelsLinuxPorts) {
    Entries entries(database_);
    std::vector<testmodels::DeviceModel> models = testmodels::readDeviceModels();
    ASSERT_EQ(models.size(), 151u);
    for (const testmodels::DeviceModel& model : models) {
        SCOPED_TRACE(model.id);
        ASSERT_TRUE(entries.has(model.id));
        // The model list describes the table's models: its pair is a table row of that ID.
        bool inTable = false;
        for (std::size_t i = 0; i < kDevicesInfoRowCount; ++i) {
            const DevPropertyMatch& row = devicesInfo[i];
            inTable |= row.quorvelID == model.id && row.vendorID == model.vendor &&
                       row.productID == model.product;
        }
        EXPECT_TRUE(inTable);
        struct Port {
            std::string path, role;
            bool optional;
        };
        std::vector<Port> ports;
        for (const testmodels::ModelTTY& tty : model.ttys) {
            ports.push_back({"/dev/cu." + tty.name, tty.role, tty.optional});
        }
        for (bool withOptional : {true, false}) {
            std::vector<std::string> paths;
            std::map<std::string, std::string> roleOf;
            for (const Port& port : ports) {
                if (withOptional || !port.optional) {
                    paths.push_back(port.path);
                    roleOf[port.path] = port.role;
                }
            }
            std::set<std::string> dataRoles;
            std::set<std::string> controlRoles;
            for (int port = 0; port < describedPorts(entries, model.id); ++port) {
                std::string caps =
                    *entries.lookup(model.id, "Capabilities.Port-" + std::to_string(port));
                std::optional<std::string> path = pick(entries, model.id, port, paths);
                if (!path) {
                    EXPECT_NE(caps.find("Optional"), std::string::npos) << "port " << port;
                    continue;
                }
                if (caps.find("DataTransport") != std::string::npos ||
                    caps.find("ALL_CAPABILITIES") != std::string::npos) {
                    dataRoles.insert(roleOf[*path]);
                }
                if (caps.find("NetworkQuery") != std::string::npos ||
                    caps.find("ALL_") != std::string::npos) {
                    controlRoles.insert(roleOf[*path]);
                }
                if (caps.find("GPSData") != std::string::npos) {
                    EXPECT_EQ(roleOf[*path], "gps");
                }
            }
            bool hasModem = false;
            for (const Port& port : ports) {
                hasModem |= port.role == "modem";
            }
            EXPECT_EQ(dataRoles,
                      hasModem ? std::set<std::string>{"modem"} : std::set<std::string>{});
            bool hasControl = false;
            for (const auto& [path, role] : roleOf) {
                hasControl |= role == "control" || role == "pcui";
            }
            // A model with a control port present gets control commands there, never only on its
            // modem.
            EXPECT_EQ(hasControl, controlRoles.count("control") + controlRoles.count("pcui") > 0);
            for (const std::string& role : controlRoles) {
                EXPECT_TRUE(role == "pcui" || role == "control" || role == "modem") << role;
            }
        }
        std::string ethernet = entries.lookup(model.id, "Capabilities.Ethernet-0").value_or("");
        EXPECT_EQ(ethernet.empty(), model.network == "-") << ethernet;
        EXPECT_EQ(entries.lookup(model.id, "ShouldSupressDriverDisk"), model.driverDisk);
    }
}

}  // namespace
