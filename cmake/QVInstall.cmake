# What `cmake --install` puts where. Two components: "runtime" (the library, its resources and
# helper programs, the udev rule, qvdevice and its man page) and "development" (headers, the
# unversioned library link, pkg-config and CMake package files).

include(CMakePackageConfigHelpers)

install(TARGETS QVDeviceObserver EXPORT QVDeviceObserverTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development)

# Headers, installed by folder so that a class added to a subsystem is installed with it: the
# framework's classes, and the platform types their interfaces use (values, objects, run loop,
# registry types). Not installed: the modem libraries (linked into the framework, called only by
# it), the registry's test doubles and the database checker of the command-line tool.
install(FILES ${CMAKE_SOURCE_DIR}/CoreLayer/QVDeviceObserver/QVDeviceObserver.h
  DESTINATION ${QV_INSTALL_HEADERS_SUBDIR} COMPONENT development)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/CoreLayer/QVDeviceObserver/Source/
  ${CMAKE_SOURCE_DIR}/CoreLayer/QVPlatform/
  DESTINATION ${QV_INSTALL_HEADERS_SUBDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h"
  PATTERN "Scripted*.h" EXCLUDE
  PATTERN "Recording*.h" EXCLUDE
  PATTERN "QVDeviceDatabaseChecker.h" EXCLUDE)

# Resources the framework reads at run time; the udev rule goes to udev, not beside them.
set(QV_INSTALLED_RESOURCE_FILES ${QV_RESOURCE_FILES})
list(FILTER QV_INSTALLED_RESOURCE_FILES EXCLUDE REGEX "\\.rules$")
install(FILES ${QV_INSTALLED_RESOURCE_FILES}
  DESTINATION ${QV_INSTALL_RESOURCES_SUBDIR} COMPONENT runtime)
file(GLOB QV_UDEV_RULE_FILES ${CMAKE_SOURCE_DIR}/CoreLayer/QVDeviceObserver/Resources/*.rules)
install(FILES ${QV_UDEV_RULE_FILES} DESTINATION ${QV_UDEV_RULES_DIR} COMPONENT runtime)

# CMake package: find_package(QVDeviceObserver) gives QVDeviceObserver::QVDeviceObserver.
install(EXPORT QVDeviceObserverTargets NAMESPACE QVDeviceObserver::
  DESTINATION ${QV_INSTALL_CMAKE_SUBDIR} COMPONENT development)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/QVDeviceObserverConfig.cmake.in
  ${CMAKE_BINARY_DIR}/QVDeviceObserverConfig.cmake
  INSTALL_DESTINATION ${QV_INSTALL_CMAKE_SUBDIR})
# The library has a SONAME of its major version: a package of another major version does not fit.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QVDeviceObserverConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/QVDeviceObserverConfig.cmake
  ${CMAKE_BINARY_DIR}/QVDeviceObserverConfigVersion.cmake
  DESTINATION ${QV_INSTALL_CMAKE_SUBDIR} COMPONENT development)

# pkg-config: written at install time, so that its prefix is the one installed into (also after
# `cmake --install --prefix`); with DESTDIR staging it is the prefix the files will have.
function(qv_pkgconfig_path out dir)
  if(IS_ABSOLUTE "${dir}")
    set(${out} "${dir}" PARENT_SCOPE)
  else()
    set(${out} "\${prefix}/${dir}" PARENT_SCOPE)
  endif()
endfunction()
qv_pkgconfig_path(QV_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
qv_pkgconfig_path(QV_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
set(QV_PC_PREFIX "@QV_PC_INSTALL_PREFIX@")
configure_file(${CMAKE_SOURCE_DIR}/cmake/QVDeviceObserver.pc.in
  ${CMAKE_BINARY_DIR}/pkgconfig/QVDeviceObserver.pc.in @ONLY)
if(IS_ABSOLUTE "${QV_INSTALL_PKGCONFIG_SUBDIR}")
  set(QV_PC_DESTINATION "${QV_INSTALL_PKGCONFIG_SUBDIR}")
else()
  set(QV_PC_DESTINATION "\${CMAKE_INSTALL_PREFIX}/${QV_INSTALL_PKGCONFIG_SUBDIR}")
endif()
# One file per destination: installs into several places may run at once (the test suite's).
install(CODE "
  string(MD5 qv_pc_tag \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}\")
  set(QV_PC_INSTALL_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  configure_file(\"${CMAKE_BINARY_DIR}/pkgconfig/QVDeviceObserver.pc.in\"
                 \"${CMAKE_BINARY_DIR}/pkgconfig/\${qv_pc_tag}/QVDeviceObserver.pc\" @ONLY)
  file(INSTALL DESTINATION \"${QV_PC_DESTINATION}\" TYPE FILE
       FILES \"${CMAKE_BINARY_DIR}/pkgconfig/\${qv_pc_tag}/QVDeviceObserver.pc\")"
  COMPONENT development)
