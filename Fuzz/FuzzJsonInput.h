// The JSON reading the JSON-driven fuzz targets share: inputs above `maxSize` and bytes that are
// not JSON are passed over (nullopt), so the targets spend their time on what the readers accept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

#include "Foundation/JsonValue.h"

inline std::optional<qv::Json> fuzzInputAsJson(const std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize) {
    if (size > maxSize) {
        return std::nullopt;
    }
    // The readers' own refusal of deep nesting comes first, as for a file.
    return qv::parseJsonText(std::string_view(reinterpret_cast<const char*>(data), size), nullptr);
}
