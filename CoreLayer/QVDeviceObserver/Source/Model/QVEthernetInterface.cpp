#include "QVEthernetInterface.h"

#include "Foundation/Format.h"

namespace {
constexpr const char* kNameKey = "_name";
}  // namespace

QVEthernetInterface::QVEthernetInterface(const QVCapabilitySet& capabilities,
                                         std::optional<std::string> name)
    : QVInterface(setByAddingObject(kQVCapabilityIsEthernetInterface, capabilities)),
      _name(std::move(name)) {}

std::shared_ptr<QVEthernetInterface> QVEthernetInterface::ethernetInterfaceWithCapabilities(
    const QVCapabilitySet& capabilities, std::optional<std::string> name) {
    return std::make_shared<QVEthernetInterface>(capabilities, std::move(name));
}

std::string QVEthernetInterface::description() const {
    return qv::format("Name: %@, Capabilities: %@",
                      _name ? qv::FormatArg(*_name) : qv::FormatArg(nullptr),
                      describeCapabilitySet(capabilities()));
}

bool QVEthernetInterface::isEqual(const qv::Object& other) const {
    // As with a serial path, a missing name equals nothing.
    const auto& otherName = static_cast<const QVEthernetInterface&>(other)._name;
    return hasSameClassAndCapabilities(other) && _name && otherName && *otherName == *_name;
}

qv::Value QVEthernetInterface::toDictionary() const {
    qv::Value dictionary = QVInterface::toDictionary();
    if (_name) {
        dictionary.set(kNameKey, *_name);
    }
    return dictionary;
}

void QVEthernetInterface::readDictionary(const qv::Value& dictionary) {
    QVInterface::readDictionary(dictionary);
    const std::string* name = dictionary[kNameKey].asString();
    _name = name != nullptr ? std::optional<std::string>(*name) : std::nullopt;
}

std::shared_ptr<QVEthernetInterface> QVEthernetInterface::loadDictionary(
    const qv::Value& dictionary) {
    std::shared_ptr<QVEthernetInterface> interface(new QVEthernetInterface());
    interface->fillFromDictionary(dictionary);
    return interface;
}

void QVEthernetInterface::encodeWithCoder(qv::KeyedArchiver& coder) const {
    QVInterface::encodeWithCoder(coder);
    coder.encodeString(_name, kNameKey);
}

void QVEthernetInterface::decodeWithCoder(qv::KeyedUnarchiver& coder) {
    QVInterface::decodeWithCoder(coder);
    _name = coder.decodeString(kNameKey);
}

std::shared_ptr<QVEthernetInterface> QVEthernetInterface::initWithCoder(
    qv::KeyedUnarchiver& coder) {
    std::shared_ptr<QVEthernetInterface> interface(new QVEthernetInterface());
    return interface->fillFromCoder(coder) ? interface : nullptr;
}
