#include "Format.h"

#include <cctype>
#include <cstdio>
#include <vector>

namespace qv {

long long FormatArg::asSigned() const {
    switch (kind_) {
        case Kind::Signed:
            return i_;
        case Kind::Unsigned:
            return static_cast<long long>(u_);
        case Kind::Real:
            return static_cast<long long>(d_);
        case Kind::Value:
            return value_->integerValue();
        default:
            return 0;
    }
}

unsigned long long FormatArg::asUnsigned() const {
    switch (kind_) {
        case Kind::Unsigned:
            return u_;
        default:
            return static_cast<unsigned long long>(asSigned());
    }
}

double FormatArg::asReal() const {
    switch (kind_) {
        case Kind::Real:
            return d_;
        case Kind::Signed:
            return static_cast<double>(i_);
        case Kind::Unsigned:
            return static_cast<double>(u_);
        case Kind::Value:
            return value_->doubleValue();
        default:
            return 0.0;
    }
}

std::string FormatArg::describe() const {
    switch (kind_) {
        case Kind::Signed:
            return std::to_string(i_);
        case Kind::Unsigned:
            return std::to_string(u_);
        case Kind::Real:
            return Value(d_).description();
        case Kind::Text:
            return std::string(text_);
        case Kind::Object:
            return object_->description();
        case Kind::Value:
            return value_->description();
        case Kind::Null:
            break;
    }
    return "(null)";
}

std::string FormatArg::asText() const {
    if (kind_ == Kind::Text) {
        return std::string(text_);
    }
    return describe();
}

namespace {

struct Spec {
    std::string flags;
    int width = -1;
    int precision = -1;
    char conversion = 0;
};

// Builds a printf directive from parsed parts only; nothing from the caller's data enters it.
// Only appends: prepending to a temporary ("." + text) makes GCC 12 at -O3 warn about an
// overlapping copy inside std::string that cannot happen (-Wrestrict).
std::string directive(const Spec& spec, const char* length, char conversion) {
    std::string d(1, '%');
    d += spec.flags;
    if (spec.width >= 0) {
        d += std::to_string(spec.width);
    }
    if (spec.precision >= 0) {
        d += '.';
        d += std::to_string(spec.precision);
    }
    d += length;
    d += conversion;
    return d;
}

template <class T>
std::string printNumber(const std::string& d, T value) {
    int n = std::snprintf(nullptr, 0, d.c_str(), value);
    if (n < 0) {
        return {};
    }
    std::vector<char> buf(static_cast<std::size_t>(n) + 1);
    std::snprintf(buf.data(), buf.size(), d.c_str(), value);
    return std::string(buf.data(), static_cast<std::size_t>(n));
}

std::string pad(std::string text, const Spec& spec) {
    if (spec.width > 0 && text.size() < static_cast<std::size_t>(spec.width)) {
        std::string fill(static_cast<std::size_t>(spec.width) - text.size(), ' ');
        bool left = spec.flags.find('-') != std::string::npos;
        text = left ? text + fill : fill + text;
    }
    return text;
}

constexpr int kMaxWidth = 4096;

}  // namespace

std::string formatArgs(std::string_view fmt, std::initializer_list<FormatArg> args) {
    std::string out;
    out.reserve(fmt.size() + 16);
    const FormatArg* next = args.begin();
    static const FormatArg kMissing(nullptr);
    auto take = [&]() -> const FormatArg& { return next != args.end() ? *next++ : kMissing; };

    std::size_t i = 0;
    while (i < fmt.size()) {
        char c = fmt[i++];
        if (c != '%') {
            out += c;
            continue;
        }
        if (i >= fmt.size()) {
            out += '%';
            break;
        }
        Spec spec;
        while (i < fmt.size() && std::string_view("-+ 0#").find(fmt[i]) != std::string_view::npos) {
            if (spec.flags.find(fmt[i]) == std::string::npos) {
                spec.flags += fmt[i];
            }
            ++i;
        }
        auto readNumber = [&]() {
            int n = 0;
            if (i < fmt.size() && fmt[i] == '*') {
                ++i;
                return static_cast<int>(take().asSigned());
            }
            while (i < fmt.size() && std::isdigit(static_cast<unsigned char>(fmt[i])) != 0) {
                n = std::min(n * 10 + (fmt[i] - '0'), kMaxWidth);
                ++i;
            }
            return n;
        };
        if (i < fmt.size() &&
            (std::isdigit(static_cast<unsigned char>(fmt[i])) != 0 || fmt[i] == '*')) {
            spec.width = std::min(std::max(readNumber(), -1), kMaxWidth);
        }
        if (i < fmt.size() && fmt[i] == '.') {
            ++i;
            spec.precision = std::min(std::max(readNumber(), 0), kMaxWidth);
        }
        while (i < fmt.size() &&
               std::string_view("hlqLzjt").find(fmt[i]) != std::string_view::npos) {
            ++i;
        }
        if (i >= fmt.size()) {
            break;
        }
        char conv = fmt[i++];
        switch (conv) {
            case '%':
                out += '%';
                break;
            case 'd':
            case 'i':
                out += printNumber(directive(spec, "ll", 'd'), take().asSigned());
                break;
            case 'u':
            case 'x':
            case 'X':
            case 'o':
                out += printNumber(directive(spec, "ll", conv), take().asUnsigned());
                break;
            case 'c': {
                char ch = static_cast<char>(take().asSigned());
                out += pad(std::string(1, ch), spec);
                break;
            }
            case 'f':
            case 'F':
            case 'e':
            case 'E':
            case 'g':
            case 'G':
            case 'a':
            case 'A':
                out += printNumber(directive(spec, "", conv), take().asReal());
                break;
            case 'p':
                out += printNumber(directive(spec, "ll", 'x'), take().asUnsigned());
                break;
            case 's':
            case '@': {
                const FormatArg& arg = take();
                std::string text = conv == 's' ? arg.asText() : arg.describe();
                if (spec.precision >= 0 && text.size() > static_cast<std::size_t>(spec.precision)) {
                    text.resize(static_cast<std::size_t>(spec.precision));
                }
                out += pad(std::move(text), spec);
                break;
            }
            default:
                // Unknown conversion: keep the text as written.
                out += '%';
                out += conv;
                break;
        }
    }
    return out;
}

}  // namespace qv
