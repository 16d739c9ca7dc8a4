#include "DatabaseFileCheck.h"

#include "Foundation/Exception.h"
#include "Knowledge/QVDeviceDatabase.h"

namespace qvdevice {

std::optional<std::string> databaseFileRefusal(const std::string& path) {
    std::string reason;
    std::optional<std::string> text = QVDeviceDatabase::readDatabaseText(path, &reason);
    if (!text) {
        return path + ": " + reason;
    }
    try {
        QVDeviceDatabase::databaseFromPropertyListString(text);
    } catch (const qv::Exception& e) {
        return path + ": " + e.reason();
    }
    return std::nullopt;
}

}  // namespace qvdevice
