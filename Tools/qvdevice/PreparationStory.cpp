#include "PreparationStory.h"

#include <charconv>

#include "IOKit/IOKitTypes.h"
#include "Preparation/QVDriverDiskEjector.h"
#include "Preparation/QVZTESerialPortsEnabler.h"
#include "QVDeviceKnowledge/QVDeviceVendors.h"

namespace qvdevice {

namespace {

std::string baseName(const std::string& path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool isDigits(const std::string& text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
}

// The real disk utility ejects an optical drive's medium after unmounting it.
bool isOpticalDriveName(const std::string& name) {
    return name.size() > 2 && name.compare(0, 2, "sr") == 0 && isDigits(name.substr(2));
}

}  // namespace

PreparationStory::PreparationStory(const PreparationScenario& scenario, qv::Registry& registry,
                                   qv::ScriptedFeeder& feeder, qv::RunLoop& loop, double origin)
    : scenario_(scenario),
      registry_(registry),
      feeder_(feeder),
      loop_(loop),
      origin_(origin),
      mounts_(std::make_shared<qv::FixedMountedFileSystems>()),
      usb_(std::make_shared<qv::RecordingUSBDeviceAccess>()) {
    for (const auto& [disk, path] : scenario.mounts) {
        mounts_->mount("/dev/" + disk, path);
    }
    usb_->setObserver([this](const qv::RecordingUSBDeviceAccess::Call& call) { usbCall(call); });
    qv::Seams seams;
    seams.mountTable = mounts_;
    seams.usbDeviceAccess = usb_;
    installation_.emplace(seams);
    for (const PreparationScenario::MountEvent& event : scenario.mountEvents) {
        const PreparationScenario::MountEvent* target = &event;
        double delay = origin_ + event.at - loop_.now();
        timers_.push_back(loop_.performAfterDelay(delay < 0.0 ? 0.0 : delay, [this, target]() {
            if (target->mount) {
                mounts_->mount("/dev/" + target->disk, target->path);
            } else {
                unmountDisk(target->disk);
            }
        }));
    }
}

PreparationStory::~PreparationStory() {
    for (auto& timer : timers_) {
        timer->invalidate();
    }
    enabler_.reset();
    usb_->setObserver({});
    installation_.reset();
}

void PreparationStory::startApplication() {
    if (!scenario_.enablerEjectsSecondaryDisk) {
        return;
    }
    enabler_ = std::make_shared<QVZTESerialPortsEnabler>();
    enabler_->setEjectSecondaryDisk(*scenario_.enablerEjectsSecondaryDisk);
    enabler_->startEnableSerialPortsForDevices();
}

bool PreparationStory::isDiskOrPartition(const std::string& device, const std::string& disk) {
    const std::string path = "/dev/" + disk;
    if (device.compare(0, path.size(), path) != 0) {
        return false;
    }
    std::string rest = device.substr(path.size());
    if (rest.empty()) {
        return true;
    }
    // sdb1, and mmcblk0p1 / nvme0n1p2 where the disk's name ends in a digit.
    if (!disk.empty() && disk.back() >= '0' && disk.back() <= '9') {
        return rest.size() > 1 && rest.front() == 'p' && isDigits(rest.substr(1));
    }
    return isDigits(rest);
}

void PreparationStory::unmountDisk(const std::string& disk) {
    std::vector<qv::MountedFileSystem> left;
    for (const qv::MountedFileSystem& mount : mounts_->mounts()) {
        if (!isDiskOrPartition(mount.device, disk)) {
            left.push_back(mount);
        }
    }
    mounts_->clear();
    for (qv::MountedFileSystem& mount : left) {
        mounts_->mount(std::move(mount.device), std::move(mount.mountPoint));
    }
}

void PreparationStory::programStarted(const qv::RecordingTaskLauncher::Record& record) {
    if (record.argv.empty()) {
        return;
    }
    const std::string program = baseName(record.argv.front());
    std::vector<std::string> arguments(record.argv.begin() + 1, record.argv.end());
    if (program == QVDriverDiskEjector::kDiskUtilityName) {
        if (arguments.size() >= 2 && arguments.front() == "unmountDisk") {
            const std::string& disk = arguments.back();
            bool forced = arguments.size() == 3 && arguments[1] == "force";
            if (arguments.size() == 2 || forced) {
                unmountDisk(disk);
                if (isOpticalDriveName(disk)) {
                    driverDiskEjected(disk);
                }
            }
        } else if (arguments.size() == 2 && arguments.front() == "eject") {
            unmountDisk(arguments[1]);
            driverDiskEjected(arguments[1]);
        }
        return;
    }
    if (program == QVZTESerialPortsEnabler::kCardPrepToolName && arguments.size() == 1 &&
        arguments.front().rfind("/pid=,", 0) == 0) {
        const std::string hex = arguments.front().substr(6);
        std::uint32_t product = 0;
        auto [end, problem] = std::from_chars(hex.data(), hex.data() + hex.size(), product, 16);
        if (problem != std::errc() || end != hex.data() + hex.size() || hex.empty()) {
            return;
        }
        // As the real tool: every attached Huawei stick with that product ID.
        for (io_registry_entry_t device : attachedUSBDevices()) {
            const qv::Value* properties = registry_.entryProperties(device);
            if (properties != nullptr &&
                static_cast<std::uint32_t>((*properties)["idVendor"].intValue()) ==
                    kHuaweiVendorID &&
                (*properties)["idProduct"].intValue() == static_cast<std::int32_t>(product)) {
                switchMode(device);
            }
        }
    }
}

void PreparationStory::usbCall(const qv::RecordingUSBDeviceAccess::Call& call) {
    if (call.operation == "USBDeviceReEnumerate" && call.status == kIOReturnSuccess &&
        registry_.isAttached(call.service) && modeSwitchFor(call.service) != nullptr) {
        switchMode(call.service);
    }
}

void PreparationStory::driverDiskEjected(const std::string& disk) {
    for (io_registry_entry_t device : attachedUSBDevices()) {
        for (io_registry_entry_t below : registry_.entryDescendants(device)) {
            const std::string* className = registry_.entryClass(below);
            const qv::Value* properties = registry_.entryProperties(below);
            if (className != nullptr && *className == "IOCDMedia" && properties != nullptr &&
                (*properties)["BSD Name"].asString() != nullptr &&
                *(*properties)["BSD Name"].asString() == disk && modeSwitchFor(device) != nullptr) {
                switchMode(device);
                return;
            }
        }
    }
}

const PreparationScenario::ModeSwitch* PreparationStory::modeSwitchFor(
    io_registry_entry_t device) const {
    const std::string* className = registry_.entryClass(device);
    const qv::Value* properties = registry_.entryProperties(device);
    if (className == nullptr || *className != "IOUSBDevice" || properties == nullptr) {
        return nullptr;
    }
    std::int32_t vendor = (*properties)["idVendor"].intValue();
    std::int32_t product = (*properties)["idProduct"].intValue();
    for (const PreparationScenario::ModeSwitch& modeSwitch : scenario_.modeSwitches) {
        if (modeSwitch.vendor == vendor && modeSwitch.product == product) {
            return &modeSwitch;
        }
    }
    return nullptr;
}

std::vector<io_registry_entry_t> PreparationStory::attachedUSBDevices() const {
    std::vector<io_registry_entry_t> devices;
    for (io_registry_entry_t entry : registry_.entryDescendants(registry_.root())) {
        const std::string* className = registry_.entryClass(entry);
        if (className != nullptr && *className == "IOUSBDevice") {
            devices.push_back(entry);
        }
    }
    return devices;
}

void PreparationStory::switchMode(io_registry_entry_t device) {
    const PreparationScenario::ModeSwitch* modeSwitch = modeSwitchFor(device);
    if (modeSwitch == nullptr || !switching_.insert(device).second) {
        return;
    }
    // Timers that have fired are done with: a stick that switches without end must not pile
    // them up.
    std::erase_if(timers_, [](const std::shared_ptr<qv::Timer>& timer) {
        return timer == nullptr || !timer->isValid();
    });
    // The stick drops off the bus once the program that switched it is done, not inside it.
    timers_.push_back(loop_.performAfterDelay(0.0, [this, device, modeSwitch]() {
        // Unplugged by the story in the same instant: nothing comes back.
        if (!registry_.isAttached(device)) {
            return;
        }
        io_registry_entry_t parent = registry_.entryParent(device);
        registry_.removeEntry(device);
        switching_.erase(device);
        feeder_.forgetDetachedIds();
        timers_.push_back(loop_.performAfterDelay(modeSwitch->after, [this, parent, modeSwitch]() {
            // A hub unplugged meanwhile takes the stick with it.
            bool atRoot = parent == IO_OBJECT_NULL || parent == registry_.root();
            if (atRoot || registry_.isAttached(parent)) {
                feeder_.addEntry(atRoot ? IO_OBJECT_NULL : parent, modeSwitch->becomes);
            }
        }));
    }));
}

}  // namespace qvdevice
