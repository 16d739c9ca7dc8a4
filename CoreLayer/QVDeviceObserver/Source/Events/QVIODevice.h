// QVIODevice: a snapshot of one attached registry device (its service entry, USB identity, serial
// ports, Ethernet interface, driver bundle and the disks it brings along) as the registry shows
// it at one moment. Taken at creation; re-taken only by updateFromIORegistry(). Everything is read
// through the I/O Kit functions, never from the registry object directly.
//
// Lives on the thread that runs the registry's notification port (the framework's run loop).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "Foundation/Object.h"
#include "Foundation/Value.h"
#include "IOKit/IOKitTypes.h"

class QVIODevice : public qv::Object {
  public:
    // The snapshot holds its own reference to `entry`; the caller keeps (and releases) its own.
    static std::shared_ptr<QVIODevice> deviceWithServiceEntry(io_registry_entry_t entry);
    explicit QVIODevice(io_registry_entry_t entry);
    ~QVIODevice() override;
    QVIODevice(const QVIODevice&) = delete;
    QVIODevice& operator=(const QVIODevice&) = delete;

    io_registry_entry_t representedEntry() const { return _representedEntry; }
    const qv::Date& timeItWasAdded() const { return _timeItWasAdded; }
    // The nullable texts are string values or nil.
    const qv::Value& name() const { return _name; }
    const qv::Value& vendor() const { return _vendor; }
    const qv::Value& driverBundle() const { return _driverBundle; }
    // The "locationID" property as the registry gave it, or nil.
    const qv::Value& locationId() const { return _locationId; }
    std::int32_t vendorID() const { return _vendorID; }
    std::int32_t productID() const { return _productID; }
    // "IOTTYDevice" names and "IOCalloutDevice" paths; not necessarily of the same length.
    const std::vector<std::string>& ports() const { return _ports; }
    const std::vector<std::string>& portPaths() const { return _portsPaths; }
    // Whether a callout path may be asked AT commands: false for ports that the platform marked
    // as diagnostics, GPS or no modem port at all ("PortFunction" on the serial client).
    bool isPortForATCommands(const std::string& path) const;
    // The mark udev rules put on a callout path ("QCDM", "GPS", "Ignore", "AT"), or "" when the
    // port has none.
    std::string portFunction(const std::string& path) const;
    const qv::Value& ethernetInterfaceName() const { return _ethernetInterfaceName; }
    const qv::Value& driverDiskName() const { return _driverDiskName; }
    const qv::Value& secondaryDiskName() const { return _secondaryDiskName; }

    bool hasSerialPorts() const;
    bool isMissingSerialAndEthernetInterfaces() const;
    bool hasDriverVolume() const;
    bool hasSecondaryVolume() const;

    // Seconds since the snapshot was created, on the run loop's clock; never negative.
    double timeIntervalSinceItWasAdded() const;
    // One property of the represented entry, or nil.
    qv::Value propertyWithName(const std::string& key) const;

    // Re-reads everything except the entry and the creation time. The driver disk is cleared
    // first; the driver bundle, the Ethernet interface and the secondary disk keep their old
    // values unless the walk finds new ones.
    void updateFromIORegistry();

    // Same class, vendor ID, product ID and (non-nil) location ID.
    bool isEqual(const qv::Object& other) const override;
    std::string description() const override;

    // Writes the entry's path and its property tree to the "DeviceRecognition" log.
    void dumpUnderlyingIOKitEntryToConsole() const;
    // The entry's properties with its children's trees nested in under "<name>@<n>", or nil.
    static qv::Value ioPropertiesForIOEntry(io_registry_entry_t entry);

  private:
    void readOwnProperties();
    void examineDescendant(io_registry_entry_t entry);
    void findDriverBundleAt(io_registry_entry_t entry);

    io_registry_entry_t _representedEntry = IO_OBJECT_NULL;
    // The registry's change stamp of the entry when it was last read (0: never).
    std::uint64_t _registryStamp = 0;
    qv::Date _timeItWasAdded;
    qv::Value _name;
    qv::Value _vendor;
    qv::Value _driverBundle;
    std::int32_t _vendorID = 0;
    std::int32_t _productID = 0;
    qv::Value _locationId;
    std::vector<std::string> _ports;
    std::vector<std::string> _portsNotForAT;
    std::vector<std::pair<std::string, std::string>> _portFunctions;  // callout path, mark
    std::vector<std::string> _portsPaths;
    qv::Value _ethernetInterfaceName;
    qv::Value _driverDiskName;
    qv::Value _secondaryDiskName;
};

using QVIODeviceArray = std::vector<std::shared_ptr<QVIODevice>>;
