#include "QVDeviceArchive.h"

#include "Foundation/KeyedArchiver.h"
#include "Model/QVUSBDevice.h"

std::string QVDeviceArchive::archivedDataWithDevice(const QVDevice& device) {
    return qv::KeyedArchiver::archivedDataWithRootObject(device);
}

std::shared_ptr<QVDevice> QVDeviceArchive::deviceWithArchivedData(std::string_view bytes,
                                                                  std::string* error) {
    return qv::KeyedUnarchiver::unarchiveObjectWithData(bytes, deviceClasses(), error);
}

const qv::KeyedUnarchiver::ClassTable<QVDevice>& QVDeviceArchive::deviceClasses() {
    static const qv::KeyedUnarchiver::ClassTable<QVDevice> classes = {
        {"QVUSBDevice",
         [](qv::KeyedUnarchiver& coder) -> std::shared_ptr<QVDevice> {
             return QVUSBDevice::initWithCoder(coder);
         }},
        {"QVDevice", [](qv::KeyedUnarchiver& coder) { return QVDevice::initWithCoder(coder); }},
    };
    return classes;
}
