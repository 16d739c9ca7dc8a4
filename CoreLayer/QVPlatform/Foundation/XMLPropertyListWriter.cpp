// The XML writer, in the layout the original platform writes: a DOCTYPE, one tab per level,
// base64 data on its own indented lines, empty collections as <array/> and <dict/>.
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "Format.h"
#include "PropertyList.h"

namespace qv {

namespace {

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";

void appendEscaped(std::string& out, std::string_view text) {
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            default:
                out += c;
        }
    }
}

void appendBase64(std::string& out, const Data& data, int indent) {
    static constexpr char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    // Lines get shorter as the indentation grows, down to a floor, as the platform writes them.
    const int clamped = indent > 8 ? 8 : indent;
    const std::size_t lineLength = static_cast<std::size_t>(76 - 8 * clamped);
    const std::string tabs(static_cast<std::size_t>(indent), '\t');
    std::string encoded;
    encoded.reserve((data.size() + 2) / 3 * 4);
    for (std::size_t i = 0; i < data.size(); i += 3) {
        const std::uint32_t b0 = data[i];
        const std::uint32_t b1 = i + 1 < data.size() ? data[i + 1] : 0;
        const std::uint32_t b2 = i + 2 < data.size() ? data[i + 2] : 0;
        const std::uint32_t triple = (b0 << 16) | (b1 << 8) | b2;
        encoded += kAlphabet[(triple >> 18) & 0x3F];
        encoded += kAlphabet[(triple >> 12) & 0x3F];
        encoded += i + 1 < data.size() ? kAlphabet[(triple >> 6) & 0x3F] : '=';
        encoded += i + 2 < data.size() ? kAlphabet[triple & 0x3F] : '=';
    }
    for (std::size_t at = 0; at < encoded.size(); at += lineLength) {
        out += tabs;
        out.append(encoded, at, lineLength);
        out += '\n';
    }
}

std::string realText(double d) {
    if (std::isnan(d)) {
        return "nan";
    }
    if (std::isinf(d)) {
        return d > 0 ? "+infinity" : "-infinity";
    }
    // The shortest text that reads back as the same number.
    char buffer[40];
    for (int precision = 1; precision <= 17; ++precision) {
        std::snprintf(buffer, sizeof buffer, "%.*g", precision, d);
        if (std::strtod(buffer, nullptr) == d) {
            break;
        }
    }
    return buffer;
}

std::string dateText(const Date& date) {
    // 978307200 is the Unix time of the reference date; the XML form keeps whole seconds and
    // four-digit years.
    const double unixTime = std::floor(date.secondsSinceReferenceDate) + 978307200.0;
    constexpr double kYear1 = -62135596800.0;
    constexpr double kYear9999End = 253402300799.0;
    if (!(unixTime >= kYear1 && unixTime <= kYear9999End)) {
        return {};
    }
    std::tm tm{};
    const auto t = static_cast<std::time_t>(unixTime);
    if (gmtime_r(&t, &tm) == nullptr) {
        return {};
    }
    char buffer[64];
    std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &tm);
    return buffer;
}

class XMLWriter {
  public:
    bool write(const Value& value, int indent) {
        if (indent > kMaxNestingDepth) {
            error_ = format("nested deeper than %d levels", kMaxNestingDepth);
            return false;
        }
        const std::string tabs(static_cast<std::size_t>(indent), '\t');
        switch (value.type()) {
            case Value::Type::Nil:
                error_ = "a nil value cannot be written";
                return false;
            case Value::Type::String:
                if (!checkText(*value.asString())) {
                    return false;
                }
                out_ += tabs + "<string>";
                appendEscaped(out_, *value.asString());
                out_ += "</string>\n";
                return true;
            case Value::Type::Integer:
                out_ += tabs + "<integer>" + std::to_string(value.integerValue()) + "</integer>\n";
                return true;
            case Value::Type::Real:
                out_ += tabs + "<real>" + realText(value.doubleValue()) + "</real>\n";
                return true;
            case Value::Type::Boolean:
                out_ += tabs + (value.boolValue() ? "<true/>\n" : "<false/>\n");
                return true;
            case Value::Type::Data:
                out_ += tabs + "<data>\n";
                appendBase64(out_, *value.asData(), indent);
                out_ += tabs + "</data>\n";
                return true;
            case Value::Type::Date: {
                const std::string text = dateText(*value.asDate());
                if (text.empty()) {
                    error_ = "a date out of range cannot be written";
                    return false;
                }
                out_ += tabs + "<date>" + text + "</date>\n";
                return true;
            }
            case Value::Type::Array:
                return writeArray(*value.asArray(), indent, tabs);
            case Value::Type::Dictionary:
                return writeDictionary(*value.asDictionary(), indent, tabs);
        }
        return false;
    }

    std::string& output() { return out_; }
    std::string& error() { return error_; }

  private:
    // XML has no way to write a NUL character, not even as a reference.
    bool checkText(std::string_view text) {
        if (text.find('\0') != std::string_view::npos) {
            error_ = "a string with a NUL character cannot be written";
            return false;
        }
        return true;
    }

    bool writeArray(const Array& array, int indent, const std::string& tabs) {
        if (array.empty()) {
            out_ += tabs + "<array/>\n";
            return true;
        }
        out_ += tabs + "<array>\n";
        for (const Value& element : array) {
            if (!write(element, indent + 1)) {
                return false;
            }
        }
        out_ += tabs + "</array>\n";
        return true;
    }

    bool writeDictionary(const Dictionary& dict, int indent, const std::string& tabs) {
        if (dict.empty()) {
            out_ += tabs + "<dict/>\n";
            return true;
        }
        out_ += tabs + "<dict>\n";
        for (const auto& [key, element] : dict) {
            if (!checkText(key)) {
                return false;
            }
            out_ += tabs + "\t<key>";
            appendEscaped(out_, key);
            out_ += "</key>\n";
            if (!write(element, indent + 1)) {
                return false;
            }
        }
        out_ += tabs + "</dict>\n";
        return true;
    }

    std::string out_;
    std::string error_;
};

}  // namespace

PropertyListWriteResult writeXMLPropertyList(const Value& value) {
    XMLWriter writer;
    writer.output() = kHeader;
    if (!writer.write(value, 0)) {
        return {{}, "XML property list: " + writer.error()};
    }
    writer.output() += "</plist>\n";
    return {std::move(writer.output()), {}};
}

}  // namespace qv
