// Reading a property list whose form is not known in advance, and reading one from a file.
#include "PropertyList.h"

#include "BoundedFileReader.h"
#include "Format.h"

namespace qv {

namespace {

constexpr std::string_view kBinaryMagic = "bplist";

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

PropertyListResult readPropertyList(std::string_view bytes) {
    if (startsWith(bytes, kBinaryMagic)) {
        return {Value(), "binary property lists are not supported"};
    }
    if (startsWith(bytes, "\xFE\xFF") || startsWith(bytes, "\xFF\xFE")) {
        return {Value(), "property lists in UTF-16 are not supported"};
    }
    std::string_view text = bytes;
    if (startsWith(text, "\xEF\xBB\xBF")) {
        text.remove_prefix(3);
    }
    const std::size_t start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos && !text.empty()) {
        // Only blanks: the ASCII reader answers for that (an empty strings file).
        return readASCIIPropertyList(text);
    }
    if (text.empty()) {
        return {Value(), "empty property list"};
    }
    const std::string_view head = text.substr(start);
    if (startsWith(head, "<?xml") || startsWith(head, "<plist") || startsWith(head, "<!DOCTYPE")) {
        return readXMLPropertyList(text);
    }
    return readASCIIPropertyList(text);
}

PropertyListResult readPropertyList(const Data& bytes) {
    return readPropertyList(
        std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

PropertyListResult readPropertyListFile(const std::string& path) {
    std::string reason;
    const std::optional<std::string> bytes =
        readFileUpTo(path, kMaxPropertyListSize, FileKinds::AnyReadable, &reason);
    if (!bytes) {
        return {Value(), format("%s: %s", path, reason)};
    }
    PropertyListResult result = readPropertyList(*bytes);
    if (!result.ok()) {
        result.error = format("%s: %s", path, result.error);
    }
    return result;
}

}  // namespace qv
