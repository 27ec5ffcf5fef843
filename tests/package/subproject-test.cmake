# Builds Tarn inside another project: with add_subdirectory, then over the same
# objects with FetchContent. Then installs it together with the engine, where a
# program of another build runs with it.
include(${CMAKE_CURRENT_LIST_DIR}/common.cmake)

build_outside(outside -DTARN_BY=add_subdirectory -DTARN_INSTALL=ON
  -DTARN_INSTALL_ENGINE=ON)
expect_sums(${WORK_DIR}/outside/start)
build_outside(outside -DTARN_BY=FetchContent)
expect_sums(${WORK_DIR}/outside/start)

run(${CMAKE_COMMAND} --install ${WORK_DIR}/outside --prefix ${WORK_DIR}/prefix)
build_outside(installed -DTARN_BY=find_package
  -DCMAKE_PREFIX_PATH=${WORK_DIR}/prefix)
expect_sums(${WORK_DIR}/installed/start)

run(${CXX} -std=c++17 ${SOURCE_DIR}/docs/snippets/start.cc
  -o ${WORK_DIR}/earlier -I${BUILD_DIR}/include -L${BUILD_DIR} -ltarn
  -Wl,--allow-shlib-undefined)
file(GLOB_RECURSE library ${WORK_DIR}/prefix/*/libtarn.so)
get_filename_component(lib_dir ${library} DIRECTORY)
expect_sums(${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${lib_dir}
  ${WORK_DIR}/earlier)
