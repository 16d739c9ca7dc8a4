#include "Application/QVModemStatusListeners.h"

#include "Application/QVDeviceObserver.h"
#include "Foundation/Logging.h"
#include "Foundation/Platform.h"
#include "QVGsmKit/GsmResultCodes.h"

namespace {

QVDeviceObserver* observerFrom(void* context) {
    return QVDeviceObserver::liveObserverFromContext(context);
}

}  // namespace

void groundInitListener(std::int32_t code, void* context, qv::Value* data) {
    (void)data;
    QVDeviceObserver* observer = observerFrom(context);
    switch (code) {
        case kGsmResultSuccess:
            if (observer) {
                observer->deviceDidRecognize();
                observer->fireGetNetInfo();
            }
            break;
        case kGsmErrorPortUnavailable:
        case kGsmErrorNoResponse:
        case kGsmErrorCommandRefused:
            if (observer) {
                observer->deviceRecognitionError(code);
            }
            break;
        case kGsmErrorApplicationMustQuit:
            // The library's word ends the application.
            qv::ApplicationTermination::terminate();
            break;
        default:
            break;
    }
}

void getDeviceInfoListener(std::int32_t code, void* context, qv::Value* data) {
    QVDeviceObserver* observer = observerFrom(context);
    if (code != kGsmResultSuccess || data == nullptr || observer == nullptr) {
        return;
    }
    observer->deviceInfoDidUpdate(*data);
    qv::logRecognition("DeviceDict2--> %@", observer->getDeviceInfo());
    // The listener owns the slot's reference; the observer keeps only its own copy.
    *data = qv::Value();
}

void gsmGetNetworkInfoListener(std::int32_t code, void* context, qv::Value* data,
                               std::int32_t complete) {
    QVDeviceObserver* observer = observerFrom(context);
    if (complete == 1 && code == kGsmResultSuccess && data != nullptr) {
        if (observer == nullptr) {
            return;
        }
        observer->networkInfoDidUpdate(*data);
        if (observer->autorepeatNetInfo()) {
            observer->scheduleNetworkRequery();
        }
    } else if (code == kGsmErrorNoResponse || code == kGsmErrorNetworkInfo) {
        qv::logRecognition("Gsm fatal error. Error get network info");
    }
}
