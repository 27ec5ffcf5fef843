# Makes the packages, unpacks each kind into a folder of its own, and finds
# speech with the tool from there.
include(${CMAKE_CURRENT_LIST_DIR}/common.cmake)

execute_process(COMMAND ${CMAKE_CPACK_COMMAND} -B ${WORK_DIR}/packages
  --config ${BUILD_DIR}/CPackConfig.cmake
  COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET WORKING_DIRECTORY ${BUILD_DIR})

file(GLOB debs ${WORK_DIR}/packages/*.deb)
foreach(deb IN LISTS debs)
  run(dpkg-deb --extract ${deb} ${WORK_DIR}/deb)
endforeach()
file(GLOB archive ${WORK_DIR}/packages/*.tar.gz)
file(ARCHIVE_EXTRACT INPUT ${archive} DESTINATION ${WORK_DIR})
file(GLOB unpacked ${WORK_DIR}/tarn-*)
list(LENGTH debs count)
if(NOT count EQUAL 3)
  message(FATAL_ERROR "Expected packages library, dev and tool, got: ${debs}")
endif()

file(GLOB clips ${SOURCE_DIR}/examples/voice-activity/clips/*16k.flac)
list(LENGTH clips clip_count)
list(TRANSFORM clips PREPEND "--wav=")
foreach(prefix ${WORK_DIR}/deb/usr ${unpacked})
  file(REMOVE_RECURSE ${WORK_DIR}/out)
  run(${WITH_ENGINE} ${prefix}/bin/tarn run
    ${SOURCE_DIR}/examples/voice-activity/voice-activity.conf
    ${BUILD_DIR}/examples/voice-activity/voice-activity.onnx
    ${clips} --output-dir ${WORK_DIR}/out)
  file(GLOB results ${WORK_DIR}/out/*/probability.npy)
  list(LENGTH results count)
  if(NOT count EQUAL clip_count)
    message(FATAL_ERROR "Expected a result for each of ${clips}: ${results}")
  endif()
  build_outside(outside -DTARN_BY=find_package -DCMAKE_PREFIX_PATH=${prefix})
  expect_sums(${WITH_ENGINE} ${WORK_DIR}/outside/start)
endforeach()
