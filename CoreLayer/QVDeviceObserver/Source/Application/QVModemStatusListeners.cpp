#include "Application/QVModemStatusListeners.h"

#include "Application/QVDeviceObserver.h"
#include "Foundation/Logging.h"
#include "Foundation/Platform.h"
#include "QVGsmKit/GsmTypes.h"
#include "RunLoop/RunLoop.h"

namespace {

QVDeviceObserver* observerFrom(void* context) { return static_cast<QVDeviceObserver*>(context); }

}  // namespace

extern "C" {

void groundInitListener(int code, void* context, qv::Value* data) {
    (void)data;
    QVDeviceObserver* observer = observerFrom(context);
    switch (code) {
        case kGsmResultSuccess:
            if (observer) {
                observer->deviceDidRecognize();
                observer->fireGetNetInfo();
            }
            break;
        case kGsmResultInitError11:
        case kGsmResultInitError12:
        case kGsmResultInitError18:
            if (observer) {
                observer->deviceRecognitionError(code);
            }
            break;
        case kGsmResultTerminate:
            // The library's word ends the application.
            qv::ApplicationTermination::terminate();
            break;
        default:
            break;
    }
}

void getDeviceInfoListener(int code, void* context, qv::Value* data) {
    QVDeviceObserver* observer = observerFrom(context);
    if (code != kGsmResultSuccess || data == nullptr || observer == nullptr) {
        return;
    }
    observer->deviceInfoDidUpdate(*data);
    qv::logRecognition("DeviceDict2--> %@", observer->getDeviceInfo());
    // The listener owns the slot's reference; the observer keeps only its own copy.
    *data = qv::Value();
}

void gsmGetNetworkInfoListener(int code, void* context, qv::Value* data, int complete) {
    QVDeviceObserver* observer = observerFrom(context);
    if (complete == 1 && code == kGsmResultSuccess && data != nullptr) {
        if (observer == nullptr) {
            return;
        }
        observer->networkInfoDidUpdate(*data);
        if (observer->autorepeatNetInfo()) {
            std::weak_ptr<QVDeviceObserver> weak = observer->weak_from_this();
            qv::RunLoop::current().scheduleTimer(
                QVDeviceObserver::kNetworkQueryInterval, false, [weak](qv::Timer&) {
                    if (auto strong = weak.lock()) {
                        strong->fireStartGetNetInfo();
                    }
                });
        }
    } else if (code == kGsmResultInitError12 || code == kGsmResultNetworkError19) {
        qv::logRecognition("Gsm fatal error. Error get network info");
    }
}

}  // extern "C"
