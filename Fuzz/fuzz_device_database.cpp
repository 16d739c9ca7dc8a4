// The device database on any bytes: the checker on whatever parses, and the framework's loader
// and every entry accessor, which may raise only the documented exceptions.
#include <cstdint>
#include <string>

#include "Foundation/Exception.h"
#include "Foundation/PropertyList.h"
#include "Foundation/UTF8.h"
#include "Knowledge/QVDeviceDatabase.h"
#include "Knowledge/QVDeviceDatabaseChecker.h"

namespace {

void readEverything(const QVDeviceDatabaseEntry& entry) {
    entry.resolvedDictionary();
    entry.ancestors();
    entry.manufacturerID();
    entry.shouldSupressDisk();
    entry.supressNetworkQueryWhileConnecting();
    entry.networkAccessTechnology();
    entry.networkIPv6Support();
    entry.deviceAPIType();
    for (const QVDatabasePortDescription& port :
         entry.portIdentificationPatternsAndCapabilities()) {
        port.toDictionary();
    }
    entry.ethernetInterfaceCapabilitiesAtIndex(0);
    entry.description();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string text(reinterpret_cast<const char*>(data), size);
    qv::PropertyListResult parsed = qv::readPropertyList(std::string_view(text));
    if (parsed.ok()) {
        QVDeviceDatabaseChecker checker(parsed.value);
        for (const QVDeviceDatabaseProblem& problem : checker.problems()) {
            (void)problem.text();
        }
    }
    if (!qv::isValidUTF8(text)) {
        return 0;
    }
    try {
        auto database = QVDeviceDatabase::databaseFromPropertyListString(text);
        for (const auto& entry : database->entries()) {
            try {
                readEverything(*entry);
            } catch (const qv::Exception& e) {
                // Only a broken ancestor chain (a missing ancestor or a cycle) may stop a lookup.
                if (e.reason().rfind("Database has no entry with Quorvel ID <", 0) != 0 &&
                    e.reason().rfind("Database entries inherit in a cycle", 0) != 0) {
                    __builtin_trap();
                }
            }
        }
    } catch (const qv::Exception&) {
        // Not a property list, not a collection, or an entry without ID: the documented refusals.
    }
    return 0;
}
