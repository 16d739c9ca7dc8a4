// The JSON reading the JSON-driven fuzz targets share: inputs above `maxSize` and bytes that are
// not JSON are passed over (nullopt), so the targets spend their time on what the readers accept.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "Foundation/JsonValue.h"

inline std::optional<qv::Json> fuzzInputAsJson(const std::uint8_t* data, std::size_t size,
                                               std::size_t maxSize) {
    if (size > maxSize) {
        return std::nullopt;
    }
    const char* text = reinterpret_cast<const char*>(data);
    qv::Json json = qv::Json::parse(text, text + size, nullptr, false);
    if (json.is_discarded()) {
        return std::nullopt;
    }
    return json;
}
