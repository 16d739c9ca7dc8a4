// What the allow tests read from a device record: its model, its USB IDs and its product name,
// and the record itself for the exclusion trace. The filter reads nothing else, so callers and
// tests can describe a device without building a whole record.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Foundation/Object.h"

struct QVDeviceFilterSubject {
    std::int32_t quorvelID = 0;
    std::int32_t vendorID = 0;
    std::int32_t productID = 0;
    std::optional<std::string> productName;
    // Printed with %@ in the exclusion trace; not owned, may be null.
    const qv::Object* record = nullptr;
};
