# The installed framework as an application's developers get it: `cmake --install` into a
# staging directory, the layout checked, the host example built against the installed files with
# CMake and with pkg-config, then run on a fake modem stick under umockdev. Not in sanitizer
# builds: the example would have to be built with the sanitizers too. The Debian packages too.
if(NOT QV_SANITIZE)
  set(QV_INSTALL_TEST_DIR ${CMAKE_BINARY_DIR}/install-test)
  add_test(NAME install_and_build_host_example
           COMMAND ${CMAKE_COMMAND} -E env
             QV_LIBDIR=${CMAKE_INSTALL_LIBDIR} QV_INCLUDEDIR=${CMAKE_INSTALL_INCLUDEDIR}
             QV_BINDIR=${CMAKE_INSTALL_BINDIR} QV_MANDIR=${CMAKE_INSTALL_MANDIR}
             QV_RESOURCES_SUBDIR=${QV_INSTALL_RESOURCES_SUBDIR}
             QV_LIBEXEC_SUBDIR=${QV_INSTALL_LIBEXEC_SUBDIR}
             QV_UDEV_RULES_DIR=${QV_UDEV_RULES_DIR}
             QV_PREFIX_UDEV_RULES_SUBDIR=${QV_PREFIX_UDEV_RULES_SUBDIR}
             CXX=${CMAKE_CXX_COMPILER}
             ${CMAKE_CURRENT_LIST_DIR}/install-and-build-host-example.sh
             ${CMAKE_BINARY_DIR} ${CMAKE_SOURCE_DIR} ${QV_INSTALL_TEST_DIR})
  set_tests_properties(install_and_build_host_example PROPERTIES
    FIXTURES_SETUP installed_host_example TIMEOUT 600)

  find_program(UMOCKDEV_RUN umockdev-run)
  add_test(NAME installed_host_example_finds_a_fake_stick
           COMMAND ${CMAKE_CURRENT_LIST_DIR}/run-host-example-on-fake-stick.sh
             ${QV_INSTALL_TEST_DIR} ${CMAKE_CURRENT_LIST_DIR}/fake-modem-stick.umockdev
             "${UMOCKDEV_RUN}")
  set_tests_properties(installed_host_example_finds_a_fake_stick PROPERTIES
    FIXTURES_REQUIRED installed_host_example SKIP_RETURN_CODE 77 TIMEOUT 120)

  # A user's install into ~/.local: nothing outside the prefix, every program runs from there.
  add_test(NAME install_into_user_prefix
           COMMAND ${CMAKE_CURRENT_LIST_DIR}/install-into-user-prefix.sh ${CMAKE_BINARY_DIR}
             ${CMAKE_BINARY_DIR}/user-install-test)
  # It writes the build tree's install manifest, as the staging install does.
  set_tests_properties(install_into_user_prefix PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 300
    RESOURCE_LOCK install_manifest)
  set_tests_properties(install_and_build_host_example PROPERTIES RESOURCE_LOCK install_manifest)

  # The Debian packages that `cpack -G DEB` makes from this build.
  add_test(NAME debian_packages
           COMMAND ${CMAKE_CURRENT_LIST_DIR}/build-debian-packages.sh ${CMAKE_BINARY_DIR}
             ${CMAKE_BINARY_DIR}/debian-packages-test
             "$<IF:$<BOOL:${QV_UDEV_RULES_DIR}>,${QV_UDEV_RULES_DIR},${QV_SYSTEM_UDEV_RULES_DIR}>")
  set_tests_properties(debian_packages PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 600)
endif()
