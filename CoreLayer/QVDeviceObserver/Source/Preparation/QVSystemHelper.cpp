#include "QVSystemHelper.h"

#include "Foundation/MountedFileSystems.h"
#include "Foundation/Task.h"
#include "Foundation/UTF8.h"

namespace {

// fgets into a 128-byte buffer read at most this much of the pipeline's output.
constexpr std::size_t kMaximumAnswerLength = 127;

// The sixth blank-separated field of a df line is the mount point: a mount point with a blank in
// it counted only up to the blank.
std::string sixthField(const std::string& mountPoint) {
    std::size_t start = mountPoint.find_first_not_of(" \t");
    if (start == std::string::npos) {
        return {};
    }
    std::size_t end = mountPoint.find_first_of(" \t", start);
    return mountPoint.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

// What df printed for one mount, as far as grep could see it: the device, the sizes (numbers and a
// percentage, which no disk name matches) and the mount point.
bool dfLineContains(const qv::MountedFileSystem& mount, const std::string& name) {
    return mount.device.find(name) != std::string::npos ||
           mount.mountPoint.find(name) != std::string::npos;
}

}  // namespace

void QVSystemHelper::sendSignal(const std::string& signal, const std::string& processName) {
    qv::TaskLauncher::shared().run(kKillallPath, {"-" + signal, processName});
}

qv::Value volumeNameForBSD(const std::string& bsdName) {
    // grep without a pattern matched nothing: the pipeline printed nothing.
    if (bsdName.empty()) {
        return qv::Value();
    }
    std::string answer;
    for (const qv::MountedFileSystem& mount : qv::MountedFileSystems::shared().mounts()) {
        if (dfLineContains(mount, bsdName)) {
            answer += sixthField(mount.mountPoint);
        }
    }
    // fgets stops at the end of the first line and at 127 bytes.
    answer = answer.substr(0, answer.find('\n'));
    if (answer.size() > kMaximumAnswerLength) {
        answer.resize(kMaximumAnswerLength);
    }
    // A multi-byte character cut in two at the end is dropped; anything else that is not text
    // gave no string at all.
    for (int i = 0; i < 3 && !answer.empty() && !qv::isValidUTF8(answer); ++i) {
        answer.pop_back();
    }
    if (!qv::isValidUTF8(answer)) {
        return qv::Value();
    }
    if (answer.empty()) {
        return qv::Value();
    }
    return qv::Value(answer);
}
