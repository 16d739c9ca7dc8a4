// QVDeviceArchive: a device record's archive form as bytes, and back. Reading accepts the two
// record classes at the root and the three interface classes inside; anything else, or any field
// of the wrong kind, gives nil (the layout: docs/archive-format.md).
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "Foundation/KeyedUnarchiver.h"
#include "Model/QVDevice.h"

class QVDeviceArchive {
  public:
    static std::string archivedDataWithDevice(const QVDevice& device);
    // nullptr (and the reason in `error`) when the bytes are not a usable device archive.
    static std::shared_ptr<QVDevice> deviceWithArchivedData(std::string_view bytes,
                                                            std::string* error = nullptr);
    // The classes a device archive's root may be: "QVDevice" and "QVUSBDevice".
    static const qv::KeyedUnarchiver::ClassTable<QVDevice>& deviceClasses();
};
