# Where each installed part goes. Every directory follows GNUInstallDirs and can be overridden on
# the command line (-DCMAKE_INSTALL_DATADIR=..., -DQV_UDEV_RULES_DIR=..., ...). The *_SUBDIR
# variables are the install destinations: relative to the prefix where the directory lies inside
# it, so that `cmake --install --prefix` and DESTDIR staging put every file in the new place.

include(GNUInstallDirs)
# An install() that names no component belongs to the runtime package.
set(CMAKE_INSTALL_DEFAULT_COMPONENT_NAME runtime)

# Resources (device database and other data files) and the helper programs the framework starts.
set(QV_INSTALL_RESOURCES_SUBDIR "${CMAKE_INSTALL_DATADIR}/QVDeviceObserver/Resources")
set(QV_INSTALL_LIBEXEC_SUBDIR "${CMAKE_INSTALL_LIBEXECDIR}/QVDeviceObserver")
set(QV_INSTALL_RESOURCES_DIR "${CMAKE_INSTALL_FULL_DATADIR}/QVDeviceObserver/Resources")
set(QV_INSTALL_LIBEXEC_DIR "${CMAKE_INSTALL_FULL_LIBEXECDIR}/QVDeviceObserver")
# The framework finds its helper programs from its resources directory, so that an installed tree
# moved as a whole (another prefix, a staging directory) still finds them.
file(RELATIVE_PATH QV_LIBEXEC_FROM_RESOURCES "${QV_INSTALL_RESOURCES_DIR}"
     "${QV_INSTALL_LIBEXEC_DIR}")
set(QV_BUILD_RESOURCES_DIR "${CMAKE_BINARY_DIR}/Resources")

# Headers: <QVDeviceObserver/QVDeviceObserver.h>, and below it the subsystem folders, which the
# headers name among themselves as "Model/QVDevice.h", "Foundation/Value.h".
set(QV_INSTALL_HEADERS_SUBDIR "${CMAKE_INSTALL_INCLUDEDIR}/QVDeviceObserver")
set(QV_INSTALL_CMAKE_SUBDIR "${CMAKE_INSTALL_LIBDIR}/cmake/QVDeviceObserver")
set(QV_INSTALL_PKGCONFIG_SUBDIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

# The udev rule. QV_UDEV_RULES_DIR, when given, is where it goes whatever the prefix. Otherwise
# the choice is made at install time, from the prefix really installed into: udev's own rules
# directory (udev.pc's udevdir) for the prefix /usr and for the Debian package; PREFIX/lib/udev/
# rules.d for any other prefix, so that `cmake --install --prefix DIR` writes nothing outside DIR.
pkg_get_variable(QV_UDEVDIR udev udevdir)
if(NOT QV_UDEVDIR)
  set(QV_UDEVDIR "/usr/lib/udev")
endif()
set(QV_SYSTEM_UDEV_RULES_DIR "${QV_UDEVDIR}/rules.d")
# A tree configured before the choice moved to install time has udev's directory cached as if it
# had been given: forget that value.
get_property(QV_UDEV_RULES_DIR_HELP CACHE QV_UDEV_RULES_DIR PROPERTY HELPSTRING)
if(QV_UDEV_RULES_DIR_HELP STREQUAL "Where the udev rule is installed" AND
   QV_UDEV_RULES_DIR STREQUAL QV_SYSTEM_UDEV_RULES_DIR)
  set_property(CACHE QV_UDEV_RULES_DIR PROPERTY VALUE "")
  set_property(CACHE QV_UDEV_RULES_DIR PROPERTY HELPSTRING "")
endif()
set(QV_UDEV_RULES_DIR "" CACHE PATH
    "Where the udev rule is installed (empty: udev's directory in /usr and packages, else under the prefix)")
set(QV_PREFIX_UDEV_RULES_SUBDIR "lib/udev/rules.d")

# Installed programs find the library through a relative run path where the library directory is
# not one the system searches anyway (a private prefix); in /usr nothing is added. Relative, so the
# tree still works installed with `--prefix` elsewhere or moved as a whole.
list(FIND CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES "${CMAKE_INSTALL_FULL_LIBDIR}" QV_LIBDIR_IS_SYSTEM)
if(QV_LIBDIR_IS_SYSTEM EQUAL -1 AND NOT CMAKE_INSTALL_FULL_LIBDIR MATCHES "^/usr/lib")
  file(RELATIVE_PATH QV_BIN_TO_LIB "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(CMAKE_INSTALL_RPATH "$ORIGIN/${QV_BIN_TO_LIB}")
  # Helper programs live one level deeper, in libexec/QVDeviceObserver.
  file(RELATIVE_PATH QV_LIBEXEC_TO_LIB "${QV_INSTALL_LIBEXEC_DIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
  set(QV_LIBEXEC_INSTALL_RPATH "$ORIGIN/${QV_LIBEXEC_TO_LIB}")
endif()

# A helper program the framework starts: built beside the resources in the build tree (where the
# framework finds it uninstalled) and installed in the libexec directory.
function(qv_add_helper_program target)
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${QV_BUILD_RESOURCES_DIR})
  if(QV_LIBEXEC_INSTALL_RPATH)
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${QV_LIBEXEC_INSTALL_RPATH}")
  endif()
  install(TARGETS ${target} RUNTIME DESTINATION ${QV_INSTALL_LIBEXEC_SUBDIR} COMPONENT runtime)
endfunction()
