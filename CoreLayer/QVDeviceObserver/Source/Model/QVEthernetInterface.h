// QVEthernetInterface: the network interface of a device (wwan0, usb0, ...), known by the name
// the operating system gives it. Carries "IS_ETHERNET_INTERFACE" besides its capabilities.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Model/QVInterface.h"

class QVEthernetInterface : public QVInterface {
  public:
    // initWithCapabilities:name: the name is taken as it is.
    QVEthernetInterface(const QVCapabilitySet& capabilities, std::optional<std::string> name);
    static std::shared_ptr<QVEthernetInterface> ethernetInterfaceWithCapabilities(
        const QVCapabilitySet& capabilities, std::optional<std::string> name);

    // The stored name; "" when there is none (`interfaceName` tells the two apart).
    std::string name() const override { return _name.value_or(std::string()); }
    const std::optional<std::string>& interfaceName() const { return _name; }
    std::string description() const override;
    bool isEqual(const qv::Object& other) const override;
    std::string className() const override { return "QVEthernetInterface"; }

    qv::Value toDictionary() const override;
    static std::shared_ptr<QVEthernetInterface> loadDictionary(const qv::Value& dictionary);
    void encodeWithCoder(qv::KeyedArchiver& coder) const override;
    static std::shared_ptr<QVEthernetInterface> initWithCoder(qv::KeyedUnarchiver& coder);

  protected:
    QVEthernetInterface() = default;
    void readDictionary(const qv::Value& dictionary) override;
    void decodeWithCoder(qv::KeyedUnarchiver& coder) override;

  private:
    std::optional<std::string> _name;
};
