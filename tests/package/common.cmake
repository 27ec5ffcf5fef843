# Shared by the scripts beside it. They get BUILD_DIR (a build of Tarn), VERSION,
# SOURCE_DIR, WORK_DIR, CXX, ENGINE (its library), ENGINE_HEADERS and MODELS_DIR.
cmake_minimum_required(VERSION 3.21)

# By itself no program finds the engine.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR})
unset(ENV{LD_LIBRARY_PATH})
get_filename_component(engine_dir ${ENGINE} DIRECTORY)
set(WITH_ENGINE ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${engine_dir})
set(MODEL ${MODELS_DIR}/accumulator-single.conf
  ${MODELS_DIR}/accumulator-single.onnx)

function(run)
  execute_process(COMMAND ${ARGN} COMMAND_ERROR_IS_FATAL ANY OUTPUT_QUIET)
endfunction()

# Expects the command that follows to succeed and to print TEXT.
function(expect text)
  execute_process(COMMAND ${ARGN}
    RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  string(FIND "${output}" "${text}" found)
  if(NOT result EQUAL 0 OR found EQUAL -1)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}: expected '${text}', but the result was "
      "${result}: ${output}")
  endif()
endfunction()

# Expects that sum-next = 1 + sum, y = sum-next + sum comes out of PROGRAM.
function(expect_sums)
  expect("1\n3\n5\n" ${ARGN} ${MODEL})
endfunction()

# Configures the outside project in WORK_DIR/NAME and builds it there.
function(build_outside name)
  run(${CMAKE_COMMAND} -S ${SOURCE_DIR}/tests/package/outside -B ${WORK_DIR}/${name}
    -G Ninja -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_BUILD_TYPE=Debug
    -DSNIPPETS_DIR=${SOURCE_DIR}/docs/snippets -DTARN_SOURCE_DIR=${SOURCE_DIR}
    ${ARGN})
  run(${CMAKE_COMMAND} --build ${WORK_DIR}/${name})
endfunction()
