# The public headers as programs see them.

# Writes each header given, a path below src/, to OUTPUT/tarn/, where they
# include one another as "tarn/...". Configures again when one has changed.
function(tarn_make_headers output)
  foreach(header IN LISTS ARGN)
    set(source ${PROJECT_SOURCE_DIR}/src/${header})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${source})
    file(READ ${source} text)
    string(REGEX REPLACE "#include \"(base|utils)/" "#include \"tarn/\\1/"
      text "${text}")
    file(CONFIGURE OUTPUT ${output}/tarn/${header} CONTENT "${text}" @ONLY)
  endforeach()
endfunction()
