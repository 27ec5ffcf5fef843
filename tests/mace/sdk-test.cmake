# Configures Tarn against SDKs of the engine, good ones and bad ones, and
# compares what CMake says:
#   cmake -DSOURCE_DIR=<tarn> -DWORK_DIR=<scratch> -P sdk-test.cmake
cmake_minimum_required(VERSION 3.21)

# Makes an SDK of the stand-in in WORK_DIR/NAME, with the options that follow.
function(make_sdk name)
  set(build ${WORK_DIR}/${name}-build)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/mace -B ${build}
      -DCMAKE_INSTALL_PREFIX=${WORK_DIR}/${name} ${ARGN}
    COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
  execute_process(
    COMMAND ${CMAKE_COMMAND} --build ${build} --target install
    COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()

# Expects a configuration with MACE_ROOT=ROOT to fail with MESSAGE, or to
# succeed where that is empty.
function(expect root message)
  file(REMOVE_RECURSE ${WORK_DIR}/tarn)
  execute_process(
    COMMAND ${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/tarn
      -DTARN_BACKEND_ONNX=OFF -DTARN_BACKEND_MACE=ON -DMACE_ROOT=${root}
      -DTARN_BUILD_TESTS=OFF -DTARN_BUILD_EXAMPLES=OFF -DTARN_BUILD_BENCH=OFF
    RESULT_VARIABLE result ERROR_VARIABLE error OUTPUT_QUIET)
  string(REGEX REPLACE "[ \n]+" " " error "${error}")
  string(FIND "${error}" "${message}" found)
  if((message AND NOT result EQUAL 0 AND NOT found EQUAL -1) OR
      (NOT message AND result EQUAL 0))
    return()
  endif()
  message(SEND_ERROR "With MACE_ROOT='${root}', expected '${message}', but "
    "the result was ${result}: ${error}")
endfunction()

unset(ENV{MACE_ROOT})
file(REMOVE_RECURSE ${WORK_DIR})
make_sdk(shared)
make_sdk(static -DMACE_STAND_IN_STATIC=ON)
make_sdk(hidden -DCMAKE_CXX_VISIBILITY_PRESET=hidden)
file(INSTALL ${WORK_DIR}/shared/include DESTINATION ${WORK_DIR}/headers)
file(INSTALL ${WORK_DIR}/shared/ DESTINATION ${WORK_DIR}/broken)
file(WRITE ${WORK_DIR}/broken/lib/libmace.so "no library")
file(INSTALL ${WORK_DIR}/shared/ DESTINATION ${WORK_DIR}/old)
file(READ ${WORK_DIR}/old/include/mace/public/mace.h text)
string(REPLACE SetAcceleratorCache SetAPUCache text "${text}")
file(WRITE ${WORK_DIR}/old/include/mace/public/mace.h "${text}")

expect(${WORK_DIR}/shared "")
expect(${WORK_DIR}/static "")
expect("" "set MACE_ROOT to a directory with its include/ and lib/.")
expect(${WORK_DIR}/none "There is no include/mace/public/mace.h in")
expect(${WORK_DIR}/headers "There is no libmace.so, libmace.a or")
expect(${WORK_DIR}/broken "cannot be linked with")
expect(${WORK_DIR}/hidden "hides mace::port::Env::Default():")
expect(${WORK_DIR}/old "are not those of MACE 1.1.1 or later")
