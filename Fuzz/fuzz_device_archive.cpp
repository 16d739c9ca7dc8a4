// Device archives on any bytes: decoding gives a record or nil, never a crash or an exception;
// a record it gives archives again, and that archive decodes to a record that archives the same.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

#include "Model/QVDeviceArchive.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const auto device = QVDeviceArchive::deviceWithArchivedData(bytes);
    if (!device) {
        return 0;
    }
    // Compared as text, so that a NaN location number counts as itself.
    const std::string archived = QVDeviceArchive::archivedDataWithDevice(*device);
    const auto again = QVDeviceArchive::deviceWithArchivedData(archived);
    if (!again || QVDeviceArchive::archivedDataWithDevice(*again) != archived) {
        std::fprintf(stderr, "archive round trip changed the record:\n%s\n", archived.c_str());
        std::abort();
    }
    return 0;
}
