#include "QVInterface.h"

#include <typeinfo>

#include "Foundation/Format.h"

namespace {
constexpr const char* kClassKey = "class";
constexpr const char* kCapabilitiesKey = "_capabilities";
}  // namespace

QVInterface::QVInterface(QVCapabilitySet capabilities) : _capabilities(std::move(capabilities)) {}

bool QVInterface::hasCapability(std::string_view capability) const {
    return _capabilities.find(capability) != _capabilities.end();
}

void QVInterface::addCapabilities(const QVCapabilitySet& capabilities) {
    QVCapabilitySet merged = _capabilities;
    merged.insert(capabilities.begin(), capabilities.end());
    if (merged == _capabilities) {
        return;
    }
    _capabilities = std::move(merged);
    _changed = true;
}

QVCapabilitySet QVInterface::setByAddingObject(const std::string& object, QVCapabilitySet set) {
    set.insert(object);
    return set;
}

std::string QVInterface::name() const {
    std::string joined;
    for (const auto& capability : _capabilities) {
        if (!joined.empty()) {
            joined += ", ";
        }
        joined += capability;
    }
    return joined;
}

std::string QVInterface::description() const {
    return qv::format("QVInterface with Capabilities: %@", describeCapabilitySet(_capabilities));
}

bool QVInterface::hasSameClassAndCapabilities(const qv::Object& other) const {
    if (typeid(other) != typeid(*this)) {
        return false;
    }
    return static_cast<const QVInterface&>(other)._capabilities == _capabilities;
}

bool QVInterface::isEqual(const qv::Object& other) const {
    return hasSameClassAndCapabilities(other);
}

namespace {

// "capability-%02d", without the formatter: every device record written renders one per
// capability.
std::string capabilityKey(int position) {
    std::string key = "capability-";
    if (position < 10) {
        key += '0';
    }
    key += std::to_string(position);
    return key;
}

}  // namespace

qv::Value QVInterface::toDictionary() const {
    qv::Dictionary capabilities;
    capabilities.reserve(_capabilities.size());
    int position = 0;
    for (const auto& capability : _capabilities) {
        capabilities.addNew(capabilityKey(position++), qv::Value(capability));
    }
    // Filled in place: an initializer list would copy the capabilities once more.
    qv::Dictionary dictionary;
    dictionary.reserve(3);  // and room for a subclass's own key
    dictionary.addNew(kClassKey, qv::Value(className()));
    dictionary.addNew(kCapabilitiesKey, qv::Value(std::move(capabilities)));
    return qv::Value(std::move(dictionary));
}

void QVInterface::readDictionary(const qv::Value& dictionary) {
    _capabilities.clear();
    if (const qv::Dictionary* capabilities = dictionary[kCapabilitiesKey].asDictionary()) {
        for (const auto& [key, capability] : *capabilities) {
            // Only strings name capabilities; anything else a hostile file put there is dropped.
            if (const std::string* text = capability.asString()) {
                _capabilities.insert(*text);
            }
        }
    }
}

void QVInterface::fillFromDictionary(const qv::Value& dictionary) {
    readDictionary(dictionary);
    _changed = false;
}

std::shared_ptr<QVInterface> QVInterface::loadDictionary(const qv::Value& dictionary) {
    std::shared_ptr<QVInterface> interface(new QVInterface());
    interface->fillFromDictionary(dictionary);
    return interface;
}

void QVInterface::encodeWithCoder(qv::KeyedArchiver& coder) const {
    coder.encodeStringSet({_capabilities.begin(), _capabilities.end()}, kCapabilitiesKey);
}

void QVInterface::decodeWithCoder(qv::KeyedUnarchiver& coder) {
    _capabilities.clear();
    if (auto capabilities = coder.decodeStringSet(kCapabilitiesKey)) {
        _capabilities.insert(capabilities->begin(), capabilities->end());
    }
}

bool QVInterface::fillFromCoder(qv::KeyedUnarchiver& coder) {
    decodeWithCoder(coder);
    _changed = false;
    return !coder.failed();
}

std::shared_ptr<QVInterface> QVInterface::initWithCoder(qv::KeyedUnarchiver& coder) {
    std::shared_ptr<QVInterface> interface(new QVInterface());
    return interface->fillFromCoder(coder) ? interface : nullptr;
}
