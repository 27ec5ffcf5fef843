# Finds ONNX Runtime's C++ headers and shared library. The first of these
# places that has both is taken:
#
#   1. the directory ONNXRUNTIME_ROOT (a variable of CMake or of the
#      environment) and no other place if it is set: include/ and lib/, or
#      headers/ and jni/<abi>/ as in the archive for Android;
#   2. the package configuration onnxruntime, or pkg-config's libonnxruntime;
#   3. what scripts/setup put into build/deps of this source tree.
#
# Defines the imported target ONNXRuntime::ONNXRuntime, and
# ONNXRuntime_INCLUDE_DIR, ONNXRuntime_LIBRARY and ONNXRuntime_VERSION.

# Sets the include directory and the library if INCLUDE_DIRS and LIBRARY_DIRS
# have them; does nothing once they are set.
function(_onnxruntime_look_in include_dirs library_dirs)
  if(ONNXRuntime_LIBRARY)
    return()
  endif()
  set(file
    ${CMAKE_SHARED_LIBRARY_PREFIX}onnxruntime${CMAKE_SHARED_LIBRARY_SUFFIX})
  foreach(directory IN LISTS include_dirs)
    foreach(sub "" /onnxruntime /onnxruntime/core/session)
      if(NOT header_dir AND EXISTS ${directory}${sub}/onnxruntime_cxx_api.h)
        set(header_dir ${directory}${sub})
      endif()
    endforeach()
  endforeach()
  foreach(directory IN LISTS library_dirs)
    if(NOT library AND EXISTS ${directory}/${file})
      set(library ${directory}/${file})
    endif()
  endforeach()
  if(header_dir AND library)
    set(ONNXRuntime_INCLUDE_DIR ${header_dir} PARENT_SCOPE)
    set(ONNXRuntime_LIBRARY ${library} PARENT_SCOPE)
  endif()
endfunction()

function(_onnxruntime_look_in_root root)
  get_filename_component(root ${root} ABSOLUTE BASE_DIR ${CMAKE_SOURCE_DIR})
  _onnxruntime_look_in("${root}/include;${root}/headers"
    "${root}/lib;${root}/lib/${CMAKE_LIBRARY_ARCHITECTURE};${root}/jni/${CMAKE_ANDROID_ARCH_ABI}")
  set(ONNXRuntime_INCLUDE_DIR ${ONNXRuntime_INCLUDE_DIR} PARENT_SCOPE)
  set(ONNXRuntime_LIBRARY ${ONNXRuntime_LIBRARY} PARENT_SCOPE)
endfunction()

function(_onnxruntime_look_in_packages)
  find_package(onnxruntime CONFIG QUIET)
  if(TARGET onnxruntime::onnxruntime)
    get_target_property(include_dirs
      onnxruntime::onnxruntime INTERFACE_INCLUDE_DIRECTORIES)
    get_target_property(library onnxruntime::onnxruntime LOCATION)
    get_filename_component(library_dir "${library}" DIRECTORY)
    get_filename_component(prefix "${library_dir}" DIRECTORY)
    _onnxruntime_look_in("${include_dirs};${prefix}/include" "${library_dir}")
  endif()
  find_package(PkgConfig QUIET)
  if(PkgConfig_FOUND AND NOT CMAKE_CROSSCOMPILING)
    pkg_check_modules(PKG_ONNXRUNTIME QUIET libonnxruntime)
    pkg_get_variable(include_dir libonnxruntime includedir)
    pkg_get_variable(library_dir libonnxruntime libdir)
    _onnxruntime_look_in("${include_dir}" "${library_dir}")
  endif()
  set(ONNXRuntime_INCLUDE_DIR ${ONNXRuntime_INCLUDE_DIR} PARENT_SCOPE)
  set(ONNXRuntime_LIBRARY ${ONNXRuntime_LIBRARY} PARENT_SCOPE)
endfunction()

if(NOT ONNXRUNTIME_ROOT AND DEFINED ENV{ONNXRUNTIME_ROOT})
  set(ONNXRUNTIME_ROOT $ENV{ONNXRUNTIME_ROOT})
endif()
if(ONNXRUNTIME_ROOT)
  _onnxruntime_look_in_root(${ONNXRUNTIME_ROOT})
else()
  _onnxruntime_look_in_packages()
  if(NOT CMAKE_CROSSCOMPILING)
    _onnxruntime_look_in_root(${CMAKE_CURRENT_LIST_DIR}/../build/deps/onnxruntime)
  endif()
endif()

if(ONNXRuntime_INCLUDE_DIR)
  file(STRINGS ${ONNXRuntime_INCLUDE_DIR}/onnxruntime_c_api.h version_line
    REGEX "#define ORT_API_VERSION [0-9]+")
  string(REGEX REPLACE "[^0-9]" "" api_version "${version_line}")
  set(ONNXRuntime_VERSION 1.${api_version})
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ONNXRuntime
  REQUIRED_VARS ONNXRuntime_LIBRARY ONNXRuntime_INCLUDE_DIR
  VERSION_VAR ONNXRuntime_VERSION
  FAIL_MESSAGE "ONNX Runtime is missing: run scripts/setup, or set \
ONNXRUNTIME_ROOT to a directory with its headers and its library.")

if(ONNXRuntime_FOUND AND NOT TARGET ONNXRuntime::ONNXRuntime)
  add_library(ONNXRuntime::ONNXRuntime SHARED IMPORTED)
  set_target_properties(ONNXRuntime::ONNXRuntime PROPERTIES
    IMPORTED_LOCATION ${ONNXRuntime_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${ONNXRuntime_INCLUDE_DIR})
endif()
