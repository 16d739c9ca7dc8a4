# Debian packages from CPack (`cpack -G DEB` in the build tree): the runtime package (library,
# resources, helper programs, udev rule, qvdevice) and the development package (headers,
# pkg-config and CMake files). Shared-library dependencies are found by dpkg-shlibdeps; the
# programs the framework starts or works with are stated by hand.

set(CPACK_PACKAGE_NAME "qvdeviceobserver")
set(CPACK_PACKAGE_VENDOR "QVDeviceObserver developers")
set(CPACK_PACKAGE_CONTACT "QVDeviceObserver developers <qvdeviceobserver@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Detection of USB modem sticks, data cards and phones for connection applications")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# The package installs where the build was configured to install (configure with
# -DCMAKE_INSTALL_PREFIX=/usr for a system package): the paths compiled into the framework then
# match the package's.
set(CPACK_PACKAGING_INSTALL_PREFIX "${CMAKE_INSTALL_PREFIX}")
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR "DEB")
set(CPACK_COMPONENTS_ALL runtime development)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION "libs")
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "libqvdeviceobserver0")
# psmisc has the /usr/bin/killall that QVSystemHelper::sendSignal runs (joined to what
# dpkg-shlibdeps finds).
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "psmisc")
# udev makes the /dev/cu.* links of the shipped rule and gives the seat's user the sticks' ports;
# udisks2 unmounts a stick's driver CD for an unprivileged host; usb-modeswitch switches sticks
# out of their storage mode.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS "udev, udisks2, usb-modeswitch")
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION
    "Detection of USB modem sticks, data cards and phones for connection applications
 The framework a mobile-broadband connection application runs on its GLib main loop: it
 recognises modem sticks, data cards and phones from udev, works out their serial ports and
 network interface, prepares them, checks them against allowed-device rules and initialises the
 default modem with AT commands. Includes the qvdevice command-line tool.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME "libqvdeviceobserver-dev")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION "libdevel")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libglib2.0-dev, nlohmann-json3-dev, pkg-config | pkgconf")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION
    "Development files of the QVDeviceObserver framework
 Headers (with the umbrella header QVDeviceObserver/QVDeviceObserver.h), the pkg-config file
 QVDeviceObserver.pc and the CMake package QVDeviceObserver.")

# Read by cpack when it packages: the udev rule then goes to udev's own directory.
set(CPACK_PROJECT_CONFIG_FILE "${CMAKE_SOURCE_DIR}/cmake/QVCPackProjectConfig.cmake")
include(CPack)
cpack_add_component(runtime DISPLAY_NAME "Library, resources and tools")
cpack_add_component(development DISPLAY_NAME "Development files" DEPENDS runtime)
