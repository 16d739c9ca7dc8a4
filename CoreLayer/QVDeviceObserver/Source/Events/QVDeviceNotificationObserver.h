// QVDeviceNotificationObserver: what the device notification center calls. An observer subscribes
// one of these methods (its "selector") per notification name; the ones it does not use stay empty.
#pragma once

#include "QVIODevice.h"

class QVDeviceNotificationObserver {
  public:
    virtual ~QVDeviceNotificationObserver() = default;

    // Snapshots of the services that matched ("DeviceAdded"), in registry order.
    virtual void devicesAdded(const QVIODeviceArray& devices) { (void)devices; }
    // Snapshots of the services that terminated ("DeviceRemoved"), built from what the registry
    // still shows of them.
    virtual void devicesRemoved(const QVIODeviceArray& devices) { (void)devices; }
};

using QVDeviceNotificationSelector =
    void (QVDeviceNotificationObserver::*)(const QVIODeviceArray& devices);
