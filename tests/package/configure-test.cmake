# Configures Tarn where something is missing or too old, and compares what
# CMake says.
include(${CMAKE_CURRENT_LIST_DIR}/common.cmake)

function(expect_refusal message)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build -G Ninja
      -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_EXAMPLES=OFF -DTARN_BUILD_TOOL=OFF
      -DTARN_BUILD_BENCH=OFF ${ARGN}
    RESULT_VARIABLE result ERROR_VARIABLE error OUTPUT_QUIET)
  file(REMOVE_RECURSE ${WORK_DIR}/build)
  string(REGEX REPLACE "[ \n]+" " " error "${error}")
  string(FIND "${error}" "${message}" found)
  if(result EQUAL 0 OR found EQUAL -1)
    message(SEND_ERROR
      "Expected '${message}', but the result was ${result}: ${error}")
  endif()
endfunction()

expect_refusal("ONNX Runtime is missing: run scripts/setup, or set"
  -DCMAKE_CXX_COMPILER=${CXX} -DONNXRUNTIME_ROOT=${WORK_DIR}/none)

get_filename_component(name ${ENGINE} NAME)
file(COPY ${ENGINE_HEADERS}/ DESTINATION ${WORK_DIR}/old/include)
file(WRITE ${WORK_DIR}/old/lib/${name} "")
file(READ ${ENGINE_HEADERS}/onnxruntime_c_api.h header)
string(REGEX REPLACE "(#define ORT_API_VERSION) [0-9]+" "\\1 12"
  header "${header}")
file(WRITE ${WORK_DIR}/old/include/onnxruntime_c_api.h "${header}")
expect_refusal("is too old, 1.13 is needed: run scripts/setup, or set"
  -DCMAKE_CXX_COMPILER=${CXX} -DONNXRUNTIME_ROOT=${WORK_DIR}/old)

# A compiler that says it is an old one.
foreach(macro __GNUC__ __clang_major__)
  list(APPEND flags -U${macro} -D${macro}=7)
endforeach()
list(JOIN flags " " flags)
file(WRITE ${WORK_DIR}/old-cxx "#!/bin/sh\nexec ${CXX} ${flags} \"$@\"\n")
file(CHMOD ${WORK_DIR}/old-cxx PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
expect_refusal("too old for Tarn: install GCC 9, Clang 9 or newer and set"
  -DCMAKE_CXX_COMPILER=${WORK_DIR}/old-cxx)
