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
if(QV_UDEV_RULES_DIR)
  install(FILES ${QV_UDEV_RULE_FILES} DESTINATION ${QV_UDEV_RULES_DIR} COMPONENT runtime)
else()
  # Decided at install time (see QVInstallDirs.cmake); cpack says it is packaging through the
  # environment (cmake/QVCPackProjectConfig.cmake).
  install(CODE "
    if(\"\${CMAKE_INSTALL_PREFIX}\" STREQUAL \"/usr\" OR DEFINED ENV{QV_PACKAGING})
      set(qv_udev_rules_dir \"${QV_SYSTEM_UDEV_RULES_DIR}\")
    else()
      set(qv_udev_rules_dir \"\${CMAKE_INSTALL_PREFIX}/${QV_PREFIX_UDEV_RULES_SUBDIR}\")
    endif()
    file(INSTALL DESTINATION \"\${qv_udev_rules_dir}\" TYPE FILE FILES ${QV_UDEV_RULE_FILES})"
    COMPONENT runtime)
endif()

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
# Written straight into the destination (DESTDIR included): the build tree may belong to another
# user than the one installing.
install(CODE "
  set(QV_PC_INSTALL_PREFIX \"\${CMAKE_INSTALL_PREFIX}\")
  file(READ \"${CMAKE_BINARY_DIR}/pkgconfig/QVDeviceObserver.pc.in\" qv_pc_text)
  string(CONFIGURE \"\${qv_pc_text}\" qv_pc_text @ONLY)
  set(qv_pc_file \"${QV_PC_DESTINATION}/QVDeviceObserver.pc\")
  message(STATUS \"Installing: \$ENV{DESTDIR}\${qv_pc_file}\")
  file(WRITE \"\$ENV{DESTDIR}\${qv_pc_file}\" \"\${qv_pc_text}\")
  list(APPEND CMAKE_INSTALL_MANIFEST_FILES \"\${qv_pc_file}\")"
  COMPONENT development)
