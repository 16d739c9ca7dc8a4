// QVSerialInterface: a serial port of a device, known by the full path of its device node
// ("/dev/cu." + the kernel name). Carries "IS_SERIAL_INTERFACE" besides the capabilities the
// device database gives the port.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Model/QVInterface.h"

class QVSerialInterface : public QVInterface {
  public:
    static constexpr const char* kPathPrefix = "/dev/cu.";

    // initWithCapabilities:path: raises NSInternalInconsistencyException when the path does not
    // begin with "/dev/cu.".
    QVSerialInterface(const QVCapabilitySet& capabilities, const std::string& path);
    static std::shared_ptr<QVSerialInterface> portWithCapabilities(
        const QVCapabilitySet& capabilities, const std::string& path);

    // nil only for an interface read from a dictionary or an archive that had no path.
    const std::optional<std::string>& path() const { return _path; }
    // The path without its first eight characters (the length of "/dev/cu.").
    std::string name() const override;
    std::string description() const override;
    bool isEqual(const qv::Object& other) const override;
    std::string className() const override { return "QVSerialInterface"; }

    qv::Value toDictionary() const override;
    static std::shared_ptr<QVSerialInterface> loadDictionary(const qv::Value& dictionary);
    void encodeWithCoder(qv::KeyedArchiver& coder) const override;
    static std::shared_ptr<QVSerialInterface> initWithCoder(qv::KeyedUnarchiver& coder);

  protected:
    QVSerialInterface() = default;
    void readDictionary(const qv::Value& dictionary) override;
    void decodeWithCoder(qv::KeyedUnarchiver& coder) override;

  private:
    std::optional<std::string> _path;
};
