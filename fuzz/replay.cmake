# The fuzz targets' entry points built with the project's compiler and run
# by the test suite over fuzz/seeds/<target> and fuzz/regressions/<target>
# (every crash input ever found): quick, and under the host presets'
# sanitizers. Host only: the tool and the element are not built for ARM.
if(CMAKE_CROSSCOMPILING)
  return()
endif()
set(_fuzz ${PROJECT_SOURCE_DIR}/fuzz)
add_library(qimra_fuzz_replay_main OBJECT ${_fuzz}/replay_main.cc)

function(qimra_fuzz_replay target)
  add_executable(qimra_replay_${target} ${_fuzz}/${target}_fuzz.cc ${ARGN} $<TARGET_OBJECTS:qimra_fuzz_replay_main>)
  target_include_directories(qimra_replay_${target} PRIVATE ${_fuzz})
  add_test(NAME Fuzz.Replay.${target}
    COMMAND qimra_replay_${target} ${_fuzz}/seeds/${target} ${_fuzz}/regressions/${target})
  # GLib's blocks as allocations of their own, where the sanitizers see them.
  set_tests_properties(Fuzz.Replay.${target} PROPERTIES TIMEOUT 300
    ENVIRONMENT "LSAN_OPTIONS=suppressions=${PROJECT_SOURCE_DIR}/tests/lsan.supp:print_suppressions=0;G_SLICE=always-malloc")
endfunction()

qimra_fuzz_replay(cpp_api)
target_link_libraries(qimra_replay_cpp_api PRIVATE qimra)
qimra_fuzz_replay(image_functions)
target_link_libraries(qimra_replay_image_functions PRIVATE qimra)
if(TARGET qimra_media)
  foreach(t y4m_reader raw_reader)
    qimra_fuzz_replay(${t})
    target_link_libraries(qimra_replay_${t} PRIVATE qimra_media)
  endforeach()
endif()
if(TARGET gstqimra)
  find_package(PkgConfig REQUIRED)
  pkg_check_modules(QIMRA_REPLAY_GST REQUIRED IMPORTED_TARGET
    gstreamer-1.0 gstreamer-base-1.0 gstreamer-video-1.0 gstreamer-check-1.0)
  set(_g ${PROJECT_SOURCE_DIR}/gst)
  qimra_fuzz_replay(gst_element ${_g}/plugin.cc ${_g}/qimraenhance.cc ${_g}/qimra_meta.cc)
  target_compile_definitions(qimra_replay_gst_element PRIVATE QIMRA_VERSION="${PROJECT_VERSION}"
    QIMRA_GST_LICENSE="${QIMRA_GST_LICENSE}" QIMRA_GST_PACKAGE="qimra" PACKAGE="qimra"
    QIMRA_GST_ORIGIN="${QIMRA_GST_ORIGIN}")
  target_link_libraries(qimra_replay_gst_element PRIVATE qimra PkgConfig::QIMRA_REPLAY_GST)
endif()
