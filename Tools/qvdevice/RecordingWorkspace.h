// qvdevice::RecordingWorkspace: the workspace the framework asks whether an application runs,
// passing each question on to the real one and keeping the identifiers it said yes to, so that a
// recording can tell the simulator which applications were running.
#pragma once

#include <memory>
#include <set>
#include <string>

#include "Foundation/Platform.h"

namespace qvdevice {

class RecordingWorkspace : public qv::Workspace {
  public:
    explicit RecordingWorkspace(std::shared_ptr<qv::Workspace> real) : real_(std::move(real)) {}

    bool isApplicationRunning(const std::string& bundleIdentifier) override;
    const std::set<std::string>& runningSeen() const { return running_; }

  private:
    std::shared_ptr<qv::Workspace> real_;
    std::set<std::string> running_;
};

}  // namespace qvdevice
