# Models that Python scripts make at build time.

find_program(TARN_PYTHON python3
  PATHS ${PROJECT_SOURCE_DIR}/build/deps/venv/bin NO_DEFAULT_PATH
  DOC "A Python that has the packages of scripts/requirements.txt")

# Adds the target NAME: runs SCRIPT with the directory OUTPUT as its argument,
# again whenever the script has changed.
function(tarn_add_models name script output)
  if(NOT TARN_PYTHON)
    message(FATAL_ERROR "Python with onnx and numpy is missing: run "
      "scripts/setup, or set TARN_PYTHON to one.")
  endif()
  set(stamp ${CMAKE_CURRENT_BINARY_DIR}/${name}.stamp)
  add_custom_command(OUTPUT ${stamp}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${output}
    COMMAND ${TARN_PYTHON} ${script} ${output}
    COMMAND ${CMAKE_COMMAND} -E touch ${stamp}
    DEPENDS ${script}
    COMMENT "Making models in ${output}"
    VERBATIM)
  add_custom_target(${name} DEPENDS ${stamp})
endfunction()
