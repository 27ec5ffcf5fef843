# Installs the build, moves what was installed, and builds against that with
# CMake and with pkg-config.
include(${CMAKE_CURRENT_LIST_DIR}/common.cmake)

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${WORK_DIR}/before)
file(RENAME ${WORK_DIR}/before ${WORK_DIR}/prefix)

build_outside(outside -DTARN_BY=find_package
  -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
expect_sums(${WITH_ENGINE} ${WORK_DIR}/outside/start)
expect("${VERSION}\n" ${WITH_ENGINE} ${WORK_DIR}/outside/version)

file(GLOB_RECURSE pc ${WORK_DIR}/prefix/*/tarn.pc)
get_filename_component(directory ${pc} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${directory})
expect(${VERSION} pkg-config --modversion tarn)
execute_process(COMMAND pkg-config --cflags --libs tarn
  COMMAND_ERROR_IS_FATAL ANY
  OUTPUT_VARIABLE flags OUTPUT_STRIP_TRAILING_WHITESPACE)
separate_arguments(flags UNIX_COMMAND "${flags}")
get_filename_component(lib_dir ${directory} DIRECTORY)
run(${CXX} -std=c++17 ${SOURCE_DIR}/docs/snippets/start.cc
  -o ${WORK_DIR}/start ${flags} -Wl,-rpath,${lib_dir})
expect_sums(${WITH_ENGINE} ${WORK_DIR}/start)

# Nothing that was installed knows where it was built.
execute_process(COMMAND grep -rl ${BUILD_DIR} ${WORK_DIR}/prefix
  OUTPUT_VARIABLE files)
if(files)
  message(FATAL_ERROR "These files name the build folder:\n${files}")
endif()
