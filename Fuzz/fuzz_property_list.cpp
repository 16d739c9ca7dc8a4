// Both property-list readers on any bytes; whatever they accept must write as XML and read
// back as the same value.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "Foundation/PropertyList.h"

namespace {

// Equality for the round trip: NaN equals NaN, dates count whole seconds (the XML form keeps no
// fractions).
bool same(const qv::Value& a, const qv::Value& b) {
    if (a.isReal() && b.isReal() && std::isnan(a.doubleValue()) && std::isnan(b.doubleValue())) {
        return true;
    }
    if (a.isDate() && b.isDate()) {
        return std::floor(a.asDate()->secondsSinceReferenceDate) ==
               std::floor(b.asDate()->secondsSinceReferenceDate);
    }
    if (a.isArray() && b.isArray()) {
        if (a.count() != b.count()) {
            return false;
        }
        for (std::size_t i = 0; i < a.count(); ++i) {
            if (!same(a.at(i), b.at(i))) {
                return false;
            }
        }
        return true;
    }
    if (a.isDictionary() && b.isDictionary()) {
        if (a.count() != b.count()) {
            return false;
        }
        for (const auto& [key, value] : *a.asDictionary()) {
            const qv::Value* other = b.asDictionary()->find(key);
            if (other == nullptr || !same(value, *other)) {
                return false;
            }
        }
        return true;
    }
    return a == b;
}

bool containsNul(const qv::Value& v) {
    if (const std::string* s = v.asString()) {
        return s->find('\0') != std::string::npos;
    }
    for (std::size_t i = 0; i < v.count() && v.isArray(); ++i) {
        if (containsNul(v.at(i))) {
            return true;
        }
    }
    if (const qv::Dictionary* dict = v.asDictionary()) {
        for (const auto& [key, value] : *dict) {
            if (key.find('\0') != std::string::npos || containsNul(value)) {
                return true;
            }
        }
    }
    return false;
}

[[noreturn]] void failRoundTrip(const char* what, const qv::Value& value, const std::string& text) {
    std::fprintf(stderr, "round trip: %s\nvalue: %s\nxml: %s\n", what, value.description().c_str(),
                 text.c_str());
    std::abort();
}

void checkRoundTrip(const qv::PropertyListResult& read) {
    if (!read.ok()) {
        if (!read.value.isNil()) {
            failRoundTrip("a failed read answered a value", read.value, read.error);
        }
        return;
    }
    const qv::PropertyListWriteResult written = qv::writeXMLPropertyList(read.value);
    // The old text form can hold a NUL character ("\000"); XML cannot, and the writer says so.
    if (!written.ok() && containsNul(read.value)) {
        return;
    }
    if (!written.ok()) {
        failRoundTrip("write failed", read.value, written.error);
    }
    const qv::PropertyListResult reread = qv::readPropertyList(written.xml);
    if (!reread.ok()) {
        failRoundTrip(reread.error.c_str(), read.value, written.xml);
    }
    if (!same(read.value, reread.value)) {
        failRoundTrip("value changed", reread.value, written.xml);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    checkRoundTrip(qv::readXMLPropertyList(bytes));
    checkRoundTrip(qv::readASCIIPropertyList(bytes));
    checkRoundTrip(qv::readPropertyList(bytes));
    return 0;
}
