# Every fuzz target, built with the ordinary compiler (and the build's sanitizers) around a small
# replaying main, runs its seeds (Fuzz/corpus/NAME/) and every input it ever failed on
# (Fuzz/regressions/NAME/) as one CTest test: a fixed fault stays fixed without waiting for the
# fuzzer to find it again. Included by Tests/CMakeLists.txt.
file(GLOB QV_FUZZ_TARGET_SOURCES CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/Fuzz/fuzz_*.cpp)
add_library(qv_fuzz_replay_main OBJECT ${CMAKE_SOURCE_DIR}/Fuzz/ReplayMain.cpp)
foreach(source ${QV_FUZZ_TARGET_SOURCES})
  get_filename_component(target ${source} NAME_WE)
  string(REGEX REPLACE "^fuzz_" "" name ${target})
  add_executable(replay_${name} ${source})
  target_link_libraries(replay_${name} PRIVATE qv_fuzz_replay_main QVDeviceObserver qvdevice_cli)
  target_include_directories(replay_${name} PRIVATE ${CMAKE_SOURCE_DIR}/Fuzz
                             ${CMAKE_SOURCE_DIR}/Tools/qvdevice)
  if(TARGET diskunmounter_core)
    target_link_libraries(replay_${name} PRIVATE diskunmounter_core)
  endif()
  target_compile_definitions(replay_${name} PRIVATE
    QV_FUZZ_SYSFS_ROOT="${CMAKE_SOURCE_DIR}/Tests/Data/DiskUnmounter/sys")
  set(inputs)
  foreach(folder corpus regressions)
    if(IS_DIRECTORY ${CMAKE_SOURCE_DIR}/Fuzz/${folder}/${name})
      list(APPEND inputs ${CMAKE_SOURCE_DIR}/Fuzz/${folder}/${name})
    endif()
  endforeach()
  add_test(NAME fuzz_regressions_${name} COMMAND replay_${name} ${inputs})
endforeach()
