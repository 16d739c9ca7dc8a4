// qvdevice db check [FILE]: checks a device database file (default: the shipped one) for what the
// framework would find out late or never; exit 0 with a one-line summary, 1 with one line per
// problem, 2 when the file is refused (unreadable, binary, truncated, not UTF-8, too deep).
// qvdevice db show ID [--file FILE] [--json]: one entry with inherited values resolved, its port
// layout and capabilities.
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <sstream>
#include <string>

#include "CommandContext.h"
#include "Foundation/Exception.h"
#include "Foundation/JsonValue.h"
#include "Foundation/Platform.h"
#include "Foundation/PropertyList.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Knowledge/QVDeviceDatabaseChecker.h"
#include "Knowledge/QVDeviceDatabaseEntry.h"
#include "Knowledge/QVDeviceDatabaseKeys.h"

namespace qvdevice {

namespace {

constexpr int kExitProblems = 1;
constexpr int kExitRefused = 2;
constexpr int kExitUsage = 2;

struct DatabaseOptions {
    std::string file;
    long long quorvelID = 0;
    bool json = false;
};

// The given file, or the shipped database found in the framework's resources.
std::optional<std::string> databasePath(const std::string& file, const char* command,
                                        CommandContext& context) {
    if (!file.empty()) {
        return file;
    }
    std::optional<std::string> path = qv::Bundle::pathForResource("DeviceDatabase", "plist");
    if (!path) {
        context.err << "qvdevice db " << command
                    << ": the shipped device database DeviceDatabase.plist is not in "
                    << qv::Bundle::resourcesDirectory() << "\n";
    }
    return path;
}

int runCheck(const DatabaseOptions& options, CommandContext& context) {
    std::optional<std::string> path = databasePath(options.file, "check", context);
    if (!path) {
        return kExitRefused;
    }
    qv::PropertyListResult parsed = qv::readPropertyListFile(*path);
    if (!parsed.ok()) {
        context.err << "qvdevice db check: refused: " << parsed.error << "\n";
        return kExitRefused;
    }
    QVDeviceDatabaseChecker checker(parsed.value);
    for (const QVDeviceDatabaseProblem& problem : checker.problems()) {
        context.out << problem.text() << "\n";
    }
    if (!checker.passed()) {
        return kExitProblems;
    }
    // The checks mirror the loader; loading it the framework's way as well keeps them honest.
    try {
        auto database = QVDeviceDatabase::databaseFromFile(*path);
        if (database->entries().size() != checker.entryCount()) {
            context.out << "file: the framework reads " << database->entries().size()
                        << " entries of " << checker.entryCount() << "\n";
            return kExitProblems;
        }
    } catch (const qv::Exception& e) {
        context.out << "file: the framework cannot load it: " << e.reason() << "\n";
        return kExitProblems;
    }
    context.out << *path << ": " << checker.entryCount() << " entries, no problems\n";
    return 0;
}

std::string shownValue(const qv::Value& value) {
    if (value.isNil()) {
        return "none";
    }
    const std::string* text = value.asString();
    return text != nullptr ? QVDeviceDatabaseChecker::quoted(*text) : value.description();
}

std::string joinedCapabilities(const QVCapabilitySet& capabilities) {
    std::string text;
    for (const std::string& name : capabilities) {
        text += text.empty() ? "" : ", ";
        text += name;
    }
    return text.empty() ? "none" : text;
}

template <std::size_t N>
std::string enumerationText(std::int32_t number, const std::array<std::string_view, N>& names) {
    std::string name = number >= 0 && static_cast<std::size_t>(number) < N
                           ? std::string(names[static_cast<std::size_t>(number)])
                           : std::string("unknown");
    return name + " (" + std::to_string(number) + ")";
}

qv::Json capabilitiesToJson(const QVCapabilitySet& capabilities) {
    qv::Json list = qv::Json::array();
    for (const std::string& name : capabilities) {
        list.push_back(name);
    }
    return list;
}

qv::Json entryToJson(const QVDeviceDatabaseEntry& entry,
                     const std::vector<std::shared_ptr<QVDeviceDatabaseEntry>>& ancestors) {
    qv::Json out = qv::Json::object();
    out["quorvelID"] = entry.quorvelID();
    qv::Json chain = qv::Json::array();
    for (const auto& ancestor : ancestors) {
        chain.push_back(ancestor->quorvelID());
    }
    out["ancestors"] = std::move(chain);
    out["manufacturer"] = qv::jsonFromValue(entry.manufacturerName());
    out["manufacturerID"] = entry.manufacturerID();
    out["portIdentificationStrategy"] = qv::jsonFromValue(entry.portIdentificationStrategy());
    qv::Json ports = qv::Json::array();
    for (const QVDatabasePortDescription& port :
         entry.portIdentificationPatternsAndCapabilities()) {
        qv::Json item = qv::Json::object();
        item["index"] = port.index;
        item["pattern"] = qv::jsonFromValue(port.pattern);
        qv::Json alternatives = qv::Json::array();
        for (const qv::Value& alternative : port.alternativePatterns) {
            alternatives.push_back(qv::jsonFromValue(alternative));
        }
        item["alternatives"] = std::move(alternatives);
        item["capabilities"] = capabilitiesToJson(port.capabilities);
        item["required"] = port.required;
        ports.push_back(std::move(item));
    }
    out["ports"] = std::move(ports);
    out["ethernetCapabilities"] = capabilitiesToJson(entry.ethernetInterfaceCapabilitiesAtIndex(0));
    out["shouldSupressDisk"] = entry.shouldSupressDisk();
    out["supressNetworkQueryWhileConnecting"] = entry.supressNetworkQueryWhileConnecting();
    out["networkAccessTechnology"] = entry.networkAccessTechnology();
    out["networkIPv6Support"] = entry.networkIPv6Support();
    out["deviceAPIType"] = entry.deviceAPIType();
    out["keys"] = qv::jsonFromValue(qv::Value(entry.resolvedDictionary()));
    return out;
}

void printEntry(std::ostream& out, const QVDeviceDatabaseEntry& entry,
                const std::vector<std::shared_ptr<QVDeviceDatabaseEntry>>& ancestors) {
    namespace Keys = QVDeviceDatabaseKeys;
    out << "Quorvel ID " << entry.quorvelID() << "\n";
    if (!ancestors.empty()) {
        constexpr std::size_t kShown = 16;
        out << "Inherits from:";
        for (std::size_t i = 0; i < ancestors.size() && i < kShown; ++i) {
            out << " " << ancestors[i]->quorvelID();
        }
        if (ancestors.size() > kShown) {
            out << " ... (" << ancestors.size() << " entries)";
        }
        out << "\n";
    }
    out << "Manufacturer: " << shownValue(entry.manufacturerName()) << " ("
        << entry.manufacturerID() << ")\n";
    out << "Port identification strategy: " << shownValue(entry.portIdentificationStrategy())
        << "\n";
    std::vector<QVDatabasePortDescription> ports =
        entry.portIdentificationPatternsAndCapabilities();
    out << "Serial ports: " << (ports.empty() ? "none" : std::to_string(ports.size())) << "\n";
    for (const QVDatabasePortDescription& port : ports) {
        out << "  " << port.index << ": " << shownValue(port.pattern)
            << (port.required ? "" : " (optional)")
            << ", capabilities: " << joinedCapabilities(port.capabilities) << "\n";
        for (std::size_t a = 0; a < port.alternativePatterns.size(); ++a) {
            out << "     alternative " << a << ": " << shownValue(port.alternativePatterns[a])
                << "\n";
        }
    }
    out << "Ethernet capabilities: "
        << joinedCapabilities(entry.ethernetInterfaceCapabilitiesAtIndex(0)) << "\n";
    out << "Driver disk suppressed: " << (entry.shouldSupressDisk() ? "YES" : "NO") << "\n";
    out << "Network queries suppressed while connecting: "
        << (entry.supressNetworkQueryWhileConnecting() ? "YES" : "NO") << "\n";
    out << "Network access technology: "
        << enumerationText(entry.networkAccessTechnology(), Keys::kNetworkAccessTechnologies)
        << "\n";
    out << "IPv6 support: "
        << enumerationText(entry.networkIPv6Support(), Keys::kNetworkIPv6Supports) << "\n";
    out << "Controlling API: " << enumerationText(entry.deviceAPIType(), Keys::kDeviceAPITypes)
        << "\n";
    out << "Keys, inheritance resolved:\n";
    for (const auto& [key, value] : entry.resolvedDictionary()) {
        out << "  " << QVDeviceDatabaseChecker::quoted(key) << " = " << shownValue(value);
        if (!entry.deviceData().contains(key)) {
            for (const auto& ancestor : ancestors) {
                if (ancestor->deviceData().contains(key)) {
                    out << "  (from " << ancestor->quorvelID() << ")";
                    break;
                }
            }
        }
        out << "\n";
    }
}

int runShow(const DatabaseOptions& options, CommandContext& context) {
    if (options.quorvelID <= 0 || options.quorvelID > std::numeric_limits<std::int32_t>::max()) {
        context.err << "qvdevice db show: " << options.quorvelID
                    << " is not a Quorvel ID (a whole number from 1 to 2147483647)\n";
        return kExitUsage;
    }
    std::optional<std::string> path = databasePath(options.file, "show", context);
    if (!path) {
        return kExitRefused;
    }
    std::string reason;
    std::optional<std::string> text = QVDeviceDatabase::readDatabaseText(*path, &reason);
    if (!text) {
        context.err << "qvdevice db show: refused: " << *path << ": " << reason << "\n";
        return kExitRefused;
    }
    try {
        auto database = QVDeviceDatabase::databaseFromPropertyListString(text);
        auto id = static_cast<std::uint32_t>(options.quorvelID);
        if (!database->hasEntryForQuorvelID(id)) {
            context.err << "qvdevice db show: " << *path << " has no entry with Quorvel ID "
                        << options.quorvelID << "\n";
            return kExitProblems;
        }
        const auto& entry = database->entryForQuorvelID(id);
        bool complete = true;
        auto ancestors = entry->ancestors(&complete);
        if (!complete) {
            const QVDeviceDatabaseEntry& last = ancestors.empty() ? *entry : *ancestors.back();
            const auto missing = static_cast<std::uint32_t>(last.ancestorQuorvelID());
            context.err << "qvdevice db show: the ancestor chain of " << options.quorvelID
                        << (database->hasEntryForQuorvelID(missing)
                                ? " loops: its entries inherit in a cycle"
                                : " is broken: ancestor " + std::to_string(missing) +
                                      " names no entry")
                        << "\n";
        }
        // Rendered whole before printing: a broken chain raises halfway through.
        std::ostringstream text;
        if (options.json) {
            text << entryToJson(*entry, ancestors).dump(2) << "\n";
        } else {
            printEntry(text, *entry, ancestors);
        }
        context.out << text.str();
    } catch (const qv::Exception& e) {
        context.err << "qvdevice db show: " << e.reason() << "\n";
        return kExitProblems;
    }
    return 0;
}

void addDatabaseCommand(CLI::App& app, CommandContext& context) {
    CLI::App* db = app.add_subcommand("db", "Check the device database, show its entries");
    db->require_subcommand(1);

    auto checkOptions = std::make_shared<DatabaseOptions>();
    CLI::App* check = db->add_subcommand(
        "check", "Check a device database file (default: the shipped one) for problems");
    check->add_option("file", checkOptions->file, "database file");
    check->callback(
        [checkOptions, &context]() { context.exitCode = runCheck(*checkOptions, context); });

    auto showOptions = std::make_shared<DatabaseOptions>();
    CLI::App* show = db->add_subcommand(
        "show", "Show one entry with inherited values resolved, its ports and capabilities");
    show->add_option("id", showOptions->quorvelID, "Quorvel ID")->required();
    show->add_option("--file", showOptions->file, "database file (default: the shipped one)");
    show->add_flag("--json", showOptions->json, "print the entry as JSON");
    show->callback(
        [showOptions, &context]() { context.exitCode = runShow(*showOptions, context); });
}

const bool registered = registerCommand("db", addDatabaseCommand);

}  // namespace

}  // namespace qvdevice
