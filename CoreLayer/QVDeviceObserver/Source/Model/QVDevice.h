// QVDevice: the record the framework keeps and hands to the application for every recognised
// modem or phone: its model (Quorvel ID), the location number that tells two plugged-in units
// apart, its names, its availability and its interfaces. Tracks whether anything in it changed,
// answers which port serves which task, forwards model facts to its database entry, and has a
// dictionary and an archive form. Used on the framework's thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Foundation/KeyedArchiver.h"
#include "Foundation/KeyedUnarchiver.h"
#include "Foundation/Object.h"
#include "Foundation/Value.h"
#include "Model/QVInterface.h"
#include "Model/QVSerialInterface.h"

class QVDeviceDatabaseEntry;
class QVAllowedDeviceRulesEntry;

class QVDevice : public qv::Object, public qv::Coding {
  public:
    using InterfaceList = std::vector<std::shared_ptr<QVInterface>>;
    // The location number is an object: two records are the same unit only when they share it
    // (see isEqual).
    using LocationNumber = std::shared_ptr<const qv::Value>;

    // init / device
    QVDevice() = default;
    static std::shared_ptr<QVDevice> device();

    // ---- identity ----
    std::int32_t quorvelID() const { return _quorvelID; }
    std::int32_t qvDeviceId() const { return quorvelID(); }
    static bool isValidQuorvelID(std::int32_t quorvelID) { return quorvelID > 0; }
    // 0 and -1 mean missing; any other negative ID counts as present, though not valid.
    bool isMissingQuorvelID() const;
    bool hasQuorvelID() const { return !isMissingQuorvelID(); }
    const LocationNumber& getUUID() const { return _locationID; }
    const LocationNumber& locationID() const { return _locationID; }
    std::uint32_t hash() const;
    // Same class or a subclass of the receiver's, both IDs present and equal, and the very same
    // location-number object: numerically equal numbers from two reads are two units.
    bool isEqual(const qv::Object& other) const override;
    // copyWithZone: a record of the same class sharing the interfaces, filled through the
    // tracking setters (so it comes out changed); driver bundle and entries are not copied.
    virtual std::shared_ptr<QVDevice> copy() const;

    // ---- tracking setters: they mark the record changed only on a real difference ----
    void setAvailable(bool available);
    void setQuorvelID(std::int32_t quorvelID);
    // nil, or anything that is not a number, becomes the number 0.
    void setUUID(LocationNumber locationNumber);
    void setUUID(const qv::Value& locationNumber);
    // nil counts as the empty string; a nil field becomes "" first, without a change.
    void setProductName(const std::optional<std::string>& productName);
    void setVendorName(const std::optional<std::string>& vendorName);
    void setDriverBundle(const std::optional<std::string>& driverBundle);

    void setDatabaseEntry(std::shared_ptr<QVDeviceDatabaseEntry> entry);
    void setAllowedDeviceRulesEntry(std::shared_ptr<QVAllowedDeviceRulesEntry> entry);
    const std::shared_ptr<QVDeviceDatabaseEntry>& databaseEntry() const { return _databaseEntry; }
    const std::shared_ptr<QVAllowedDeviceRulesEntry>& allowedDeviceRulesEntry() const {
        return _allowedDeviceRulesEntry;
    }

    const std::optional<std::string>& productName() const { return _productName; }
    const std::optional<std::string>& vendorName() const { return _vendorName; }
    const std::optional<std::string>& driverBundle() const { return _driverBundle; }
    bool isAvailable() const { return _available; }
    const InterfaceList& interfaces() const { return _interfaces; }

    // ---- change tracking ----
    // YES when the record or any of its interfaces changed.
    bool isChanged() const;
    // NO also clears every interface's flag; YES is not passed down.
    void setChanged(bool changed);

    // ---- interfaces and their selection, in list order ----
    void addInterface(std::shared_ptr<QVInterface> interface);
    static InterfaceList filterInterfaces(const InterfaceList& interfaces,
                                          std::string_view capability);
    static InterfaceList filterInterfaces(const InterfaceList& interfaces,
                                          const std::vector<std::string>& capabilities);
    InterfaceList serialPorts() const;
    InterfaceList ethernetInterfaces() const;
    // The first serial port with the capability. Only real serial interfaces have a path, so a
    // plain interface that a dictionary marked serial answers nil here.
    std::shared_ptr<QVSerialInterface> portWithCapability(std::string_view capability) const;
    std::optional<std::string> deviceName() const;
    std::optional<std::string> getDevicePath() const;
    std::optional<std::string> getMessageDevicePath() const;
    std::string getMessageDeviceFamily() const { return "option"; }
    int getMessageDeviceType() const { return 2; }
    std::optional<std::string> ethernetInterfaceName() const;

    // ---- texts ----
    // The modem library's name for the model.
    std::string getDisplayName() const;
    // Several lines: ID, availability, names, the library's device type, the network interface
    // and the interfaces.
    std::string description() const override;

    // ---- model facts (0 when no entry is set) ----
    // From the database entry: the maker's number, "GSM" 0 / "CDMA" 1, "IPv6" 0 / "IPv4v6" 1
    // (-1 when unknown), and the controlling interface (0 for AT commands).
    std::int32_t manufacturerID() const;
    std::int32_t networkAccessTechnology() const;
    std::int32_t networkIPv6Support() const;
    std::int32_t deviceAPIType() const;
    // From the rule that allowed the device: "kEthernet" 2, "kSerial" 1, anything else 0.
    std::int32_t preferredDTIfType() const;

    // ---- persistent forms ----
    virtual std::string className() const { return "QVDevice"; }
    virtual qv::Value toDictionary() const;
    // Unknown or unnamed interface classes go to the system log and are skipped.
    static std::shared_ptr<QVDevice> loadDictionary(const qv::Value& dictionary);
    std::string classNameForArchive() const override { return className(); }
    void encodeWithCoder(qv::KeyedArchiver& coder) const override;
    static std::shared_ptr<QVDevice> initWithCoder(qv::KeyedUnarchiver& coder);

  protected:
    // Whether `other` is of the receiver's class or a subclass of it.
    virtual bool isKindOfReceiverClass(const qv::Object& other) const;
    // The empty record of the receiver's class that copy() fills.
    virtual std::shared_ptr<QVDevice> makeEmptyOfSameClass() const;
    virtual void readDictionary(const qv::Value& dictionary);
    virtual void decodeWithCoder(qv::KeyedUnarchiver& coder);
    void fillFromDictionary(const qv::Value& dictionary);
    bool fillFromCoder(qv::KeyedUnarchiver& coder);
    // Empties the interface list without marking anything; answers whether it had members.
    bool clearInterfaceList();

  private:
    std::shared_ptr<QVDeviceDatabaseEntry> _databaseEntry;
    std::int32_t _quorvelID = 0;
    LocationNumber _locationID;
    InterfaceList _interfaces;
    std::optional<std::string> _productName;
    std::optional<std::string> _vendorName;
    std::optional<std::string> _driverBundle;
    bool _available = false;
    std::shared_ptr<QVAllowedDeviceRulesEntry> _allowedDeviceRulesEntry;
    // Kept from the original record; nothing reads them (the USB record has its own pair).
    [[maybe_unused]] std::int32_t _vendorId = 0;
    [[maybe_unused]] std::int32_t _productId = 0;
    std::shared_ptr<qv::Object> _mobileDevice;
    bool _changed = false;
};
