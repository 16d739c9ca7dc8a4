// The framework's application interface in one header: the observer and its delegate, the
// framework thread that runs them off the host's main loop, the priority queue, the device
// monitors, the device model classes, the allowed-device filter and the preparation classes an
// application creates itself.
//
//     #include <QVDeviceObserver/QVDeviceObserver.h>
//
// with the flags of `pkg-config --cflags QVDeviceObserver` or the CMake target
// QVDeviceObserver::QVDeviceObserver. The headers below name one another by their subsystem
// folder ("Model/QVDevice.h"); those flags put the folders on the include path.
#pragma once

#include "Application/FrameworkThread.h"
#include "Application/QVDeviceObserver.h"
#include "Application/QVDeviceObserverDelegate.h"
#include "Application/QVPrioQueue.h"
#include "Model/QVCapabilitySet.h"
#include "Model/QVDevice.h"
#include "Model/QVEthernetInterface.h"
#include "Model/QVInterface.h"
#include "Model/QVSerialInterface.h"
#include "Model/QVUSBDevice.h"
#include "Recognition/QVDeviceMonitor.h"
#include "Recognition/QVDeviceMonitorGenericDevRecogn.h"
#include "Rules/QVDeviceFilter.h"
#if __has_include("Preparation/QVZTESerialPortsEnabler.h")
#include "Preparation/QVZTESerialPortsEnabler.h"
#endif
#if __has_include("Preparation/QVSystemHelper.h")
#include "Preparation/QVSystemHelper.h"
#endif
