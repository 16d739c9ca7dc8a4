#include "QVSerialInterface.h"

#include "Foundation/Exception.h"
#include "Foundation/Format.h"

namespace {
constexpr const char* kPathKey = "_path";
}  // namespace

QVSerialInterface::QVSerialInterface(const QVCapabilitySet& capabilities, const std::string& path)
    : QVInterface(setByAddingObject(kQVCapabilityIsSerialInterface, capabilities)) {
    if (!path.starts_with(kPathPrefix)) {
        // The message shows the field, not the argument; the field is still unset here, so it
        // always reads "(null)". Kept as the framework has always reported it.
        throw qv::Exception(
            qv::kNSInternalInconsistencyException,
            qv::format("Expected serial port to have a prefix of \"%@\" but it was: %@",
                       kPathPrefix, nullptr));
    }
    _path = path;
}

std::shared_ptr<QVSerialInterface> QVSerialInterface::portWithCapabilities(
    const QVCapabilitySet& capabilities, const std::string& path) {
    return std::make_shared<QVSerialInterface>(capabilities, path);
}

std::string QVSerialInterface::name() const {
    const std::size_t prefixLength = std::string_view(kPathPrefix).size();
    if (!_path || _path->size() < prefixLength) {
        // A loaded path shorter than the prefix has no name (the original raised a range error).
        return std::string();
    }
    return _path->substr(prefixLength);
}

std::string QVSerialInterface::description() const {
    return qv::format("Name: %@, Path: %@, Capabilities: %@", name(),
                      _path ? qv::FormatArg(*_path) : qv::FormatArg(nullptr),
                      describeCapabilitySet(capabilities()));
}

bool QVSerialInterface::isEqual(const qv::Object& other) const {
    // A missing path equals nothing, not even another missing one: the comparison is a string
    // comparison that a missing string never passes.
    const auto& otherPath = static_cast<const QVSerialInterface&>(other)._path;
    return hasSameClassAndCapabilities(other) && _path && otherPath && *otherPath == *_path;
}

qv::Value QVSerialInterface::toDictionary() const {
    qv::Value dictionary = QVInterface::toDictionary();
    if (_path) {
        dictionary.set(kPathKey, *_path);
    }
    return dictionary;
}

void QVSerialInterface::readDictionary(const qv::Value& dictionary) {
    QVInterface::readDictionary(dictionary);
    const std::string* path = dictionary[kPathKey].asString();
    _path = path != nullptr ? std::optional<std::string>(*path) : std::nullopt;
}

std::shared_ptr<QVSerialInterface> QVSerialInterface::loadDictionary(const qv::Value& dictionary) {
    std::shared_ptr<QVSerialInterface> interface(new QVSerialInterface());
    interface->fillFromDictionary(dictionary);
    return interface;
}

void QVSerialInterface::encodeWithCoder(qv::KeyedArchiver& coder) const {
    QVInterface::encodeWithCoder(coder);
    coder.encodeString(_path, kPathKey);
}

void QVSerialInterface::decodeWithCoder(qv::KeyedUnarchiver& coder) {
    QVInterface::decodeWithCoder(coder);
    _path = coder.decodeString(kPathKey);
}

std::shared_ptr<QVSerialInterface> QVSerialInterface::initWithCoder(qv::KeyedUnarchiver& coder) {
    std::shared_ptr<QVSerialInterface> interface(new QVSerialInterface());
    return interface->fillFromCoder(coder) ? interface : nullptr;
}
