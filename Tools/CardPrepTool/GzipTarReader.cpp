#include "GzipTarReader.h"

#include <gio/gio.h>

#include <cstring>

#include "Foundation/BoundedFileReader.h"

namespace cardprep {

namespace {

constexpr std::size_t kBlock = 512;

// A tar header's numeric field: octal digits, possibly padded with blanks or NULs.
std::optional<std::size_t> octalField(const char* field, std::size_t length) {
    std::size_t value = 0;
    bool digits = false;
    for (std::size_t i = 0; i < length; ++i) {
        char c = field[i];
        if (c >= '0' && c <= '7') {
            if (value > (static_cast<std::size_t>(1) << 40)) {
                return std::nullopt;
            }
            value = value * 8 + static_cast<std::size_t>(c - '0');
            digits = true;
        } else if (c == ' ' || c == '\0') {
            if (digits) {
                break;
            }
        } else {
            return std::nullopt;
        }
    }
    return value;
}

std::string textField(const char* field, std::size_t length) {
    return std::string(field, strnlen(field, length));
}

}  // namespace

std::optional<std::string> GzipTarReader::gunzip(const std::string& compressed,
                                                 std::string* error) {
    GZlibDecompressor* decompressor = g_zlib_decompressor_new(G_ZLIB_COMPRESSOR_FORMAT_GZIP);
    std::string out;
    std::size_t read = 0;
    char buffer[64 * 1024];
    bool ok = true;
    for (;;) {
        gsize bytesRead = 0;
        gsize bytesWritten = 0;
        GError* gerror = nullptr;
        GConverterResult result = g_converter_convert(
            G_CONVERTER(decompressor), compressed.data() + read, compressed.size() - read, buffer,
            sizeof buffer, G_CONVERTER_INPUT_AT_END, &bytesRead, &bytesWritten, &gerror);
        if (result == G_CONVERTER_ERROR) {
            if (error) {
                *error = std::string("not a gzip archive: ") + gerror->message;
            }
            g_error_free(gerror);
            ok = false;
            break;
        }
        read += bytesRead;
        out.append(buffer, bytesWritten);
        if (out.size() > kMaxArchiveSize) {
            if (error) {
                *error = "the archive is larger than " + std::to_string(kMaxArchiveSize) +
                         " bytes uncompressed";
            }
            ok = false;
            break;
        }
        if (result == G_CONVERTER_FINISHED) {
            break;
        }
        if (bytesRead == 0 && bytesWritten == 0) {
            if (error) {
                *error = "the gzip archive is cut short";
            }
            ok = false;
            break;
        }
    }
    g_object_unref(decompressor);
    if (!ok) {
        return std::nullopt;
    }
    return out;
}

std::optional<std::string> GzipTarReader::findMember(const std::string& compressed,
                                                     const std::string& member,
                                                     std::string* error) {
    std::optional<std::string> archive = gunzip(compressed, error);
    if (!archive) {
        return std::nullopt;
    }
    std::size_t offset = 0;
    while (offset + kBlock <= archive->size()) {
        const char* header = archive->data() + offset;
        if (header[0] == '\0') {
            break;  // the end-of-archive blocks
        }
        std::optional<std::size_t> size = octalField(header + 124, 12);
        if (!size || *size > archive->size()) {
            if (error) {
                *error = "a tar header at offset " + std::to_string(offset) + " is damaged";
            }
            return std::nullopt;
        }
        std::string name = textField(header, 100);
        // ustar keeps the leading directories of a long name in its prefix field.
        if (std::memcmp(header + 257, "ustar", 5) == 0) {
            std::string prefix = textField(header + 345, 155);
            if (!prefix.empty()) {
                name = prefix + "/" + name;
            }
        }
        if (name.rfind("./", 0) == 0) {
            name = name.substr(2);
        }
        char type = header[156];
        std::size_t dataStart = offset + kBlock;
        if (dataStart + *size > archive->size()) {
            if (error) {
                *error = "the tar member " + name + " is cut short";
            }
            return std::nullopt;
        }
        if ((type == '0' || type == '\0') && name == member) {
            return archive->substr(dataStart, *size);
        }
        offset = dataStart + (*size + kBlock - 1) / kBlock * kBlock;
    }
    return std::nullopt;
}

std::optional<std::string> GzipTarReader::readMember(const std::string& path,
                                                     const std::string& member,
                                                     std::string* error) {
    std::string reason;
    std::optional<std::string> compressed =
        qv::readFileUpTo(path, kMaxArchiveSize, qv::FileKinds::RegularOnly, &reason);
    if (!compressed) {
        if (error) {
            *error = path + ": " + reason;
        }
        return std::nullopt;
    }
    if (error) {
        error->clear();
    }
    return findMember(*compressed, member, error);
}

}  // namespace cardprep
