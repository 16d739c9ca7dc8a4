// Who needs the shared device registry fed (from udev on a live machine). The feed starts with its
// first user and stops with its last, whoever they are: observers and a serial port enabler that
// an application runs on its own. qv::PlatformFactory, which decides what feeds the registry,
// defines these; receivers below the application layer call them through this header.
#pragma once

namespace qv {

void registryFeedUserStarted();
void registryFeedUserStopped();

}  // namespace qv
