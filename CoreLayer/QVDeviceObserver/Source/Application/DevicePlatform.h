// qv::DevicePlatform: what feeds the shared device registry while observers run. The live one
// follows this machine's devices through udev; tests and `qvdevice simulate` install a scripted
// one through qv::PlatformFactory. The factory starts the platform when the first observer starts
// and stops it when the last one stops, both on that observer's thread.
#pragma once

namespace qv {

class DevicePlatform {
  public:
    virtual ~DevicePlatform() = default;
    // Begins feeding the shared registry on the calling thread's run loop.
    virtual void start() = 0;
    // Stops feeding and takes out of the registry what this platform put in.
    virtual void stop() = 0;
};

}  // namespace qv
