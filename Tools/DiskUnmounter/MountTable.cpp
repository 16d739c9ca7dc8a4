#include "MountTable.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace diskunmounter {

namespace {

bool isOctalDigit(char c) {
    return c >= '0' && c <= '7';
}

bool parseNumber(std::string_view text, unsigned* value) {
    if (text.empty()) {
        return false;
    }
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size();
}

// The kernel separates fields by exactly one space; an empty field (an empty source) stays a field.
std::vector<std::string_view> splitFields(std::string_view line) {
    std::vector<std::string_view> fields;
    std::size_t start = 0;
    for (;;) {
        std::size_t end = line.find(' ', start);
        if (end == std::string_view::npos) {
            fields.push_back(line.substr(start));
            return fields;
        }
        fields.push_back(line.substr(start, end - start));
        start = end + 1;
    }
}

// One line: ID PARENT MAJOR:MINOR ROOT MOUNTPOINT OPTIONS [OPTIONAL...] - FSTYPE SOURCE SUPEROPTS
std::optional<MountEntry> parseLine(std::string_view line) {
    std::vector<std::string_view> fields = splitFields(line);
    constexpr std::size_t kFieldsBeforeOptional = 6;
    std::size_t separator = kFieldsBeforeOptional;
    while (separator < fields.size() && fields[separator] != "-") {
        ++separator;
    }
    // The separator needs at least the filesystem type and the source after it.
    if (separator + 2 >= fields.size()) {
        return std::nullopt;
    }
    MountEntry entry;
    std::string_view device = fields[2];
    std::size_t colon = device.find(':');
    if (colon == std::string_view::npos || !parseNumber(fields[0], &entry.mountId) ||
        !parseNumber(fields[1], &entry.parentId) ||
        !parseNumber(device.substr(0, colon), &entry.major) ||
        !parseNumber(device.substr(colon + 1), &entry.minor)) {
        return std::nullopt;
    }
    entry.root = MountTable::unescape(fields[3]);
    entry.mountPoint = MountTable::unescape(fields[4]);
    entry.fsType = MountTable::unescape(fields[separator + 1]);
    entry.source = MountTable::unescape(fields[separator + 2]);
    return entry;
}

}  // namespace

std::string MountTable::unescape(std::string_view field) {
    std::string result;
    result.reserve(field.size());
    for (std::size_t i = 0; i < field.size(); ++i) {
        bool escape = field[i] == '\\' && i + 3 < field.size() && field[i + 1] <= '3' &&
                      isOctalDigit(field[i + 1]) && isOctalDigit(field[i + 2]) &&
                      isOctalDigit(field[i + 3]);
        if (escape) {
            int value = (field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 + (field[i + 3] - '0');
            result.push_back(static_cast<char>(value));
            i += 3;
        } else {
            result.push_back(field[i]);
        }
    }
    return result;
}

std::string MountTable::quoted(std::string_view path) {
    std::string result = "\"";
    for (char c : path) {
        auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\' || byte < 0x20 || byte == 0x7f) {
            result += '\\';
            result += static_cast<char>('0' + (byte >> 6));
            result += static_cast<char>('0' + ((byte >> 3) & 7));
            result += static_cast<char>('0' + (byte & 7));
        } else {
            result += c;
        }
    }
    return result + "\"";
}

std::optional<MountTable> MountTable::parse(std::string_view text, std::string* error) {
    std::vector<MountEntry> entries;
    std::size_t lineNumber = 0;
    std::size_t start = 0;
    while (start < text.size()) {
        std::size_t end = text.find('\n', start);
        if (end == std::string_view::npos) {
            end = text.size();
        }
        std::string_view line = text.substr(start, end - start);
        start = end + 1;
        ++lineNumber;
        if (line.empty()) {
            continue;
        }
        std::optional<MountEntry> entry = parseLine(line);
        if (!entry) {
            if (error) {
                *error = "line " + std::to_string(lineNumber) + " is not a mount entry";
            }
            return std::nullopt;
        }
        entries.push_back(std::move(*entry));
    }
    return MountTable(std::move(entries));
}

std::optional<MountTable> MountTable::read(const std::string& path, std::string* error,
                                           std::size_t maximumBytes) {
    auto failWith = [&](const std::string& why) -> std::optional<MountTable> {
        if (error) {
            *error = path + ": " + why;
        }
        return std::nullopt;
    };
    // Not blocking: a FIFO given as the table must not hang the tool in open().
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return failWith(std::string("cannot read: ") + std::strerror(errno));
    }
    struct stat status {};
    // The kernel's table is a regular file (of size 0); anything else is not a mount table.
    if (fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(fd);
        return failWith("not a regular file");
    }
    std::string text;
    char buffer[65536];
    bool tooLarge = false;
    for (;;) {
        ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            int readError = errno;
            close(fd);
            return failWith(std::string("cannot read: ") + std::strerror(readError));
        }
        if (count == 0) {
            break;
        }
        if (text.size() + static_cast<std::size_t>(count) > maximumBytes) {
            tooLarge = true;
            break;
        }
        text.append(buffer, static_cast<std::size_t>(count));
    }
    close(fd);
    if (tooLarge) {
        return failWith("larger than " + std::to_string(maximumBytes) + " bytes");
    }
    std::string parseError;
    std::optional<MountTable> table = parse(text, &parseError);
    if (!table) {
        return failWith(parseError);
    }
    return table;
}

}  // namespace diskunmounter
