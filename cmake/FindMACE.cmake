# Finds an SDK of the MACE engine in the directory MACE_ROOT (a variable of
# CMake or of the environment): include/mace/, and in lib/ or in lib/<abi>/ the
# shared library libmace.so or one of the static libmace.a, libmace_static.a.
#
# The headers carry no version. What the backend needs of them came with MACE
# 1.1.1, and what it needs of the library some builds hide: both are tried.
#
# Defines the imported target MACE::MACE, and MACE_INCLUDE_DIR and MACE_LIBRARY.

# Sets RESULT to whether a source file with the statements BODY compiles, and
# links with LIBRARIES if TYPE is EXECUTABLE.
function(_mace_try result type body libraries)
  set(source ${CMAKE_BINARY_DIR}/CMakeFiles/FindMACE/${result}.cc)
  file(WRITE ${source} "
    #include <mace/port/env.h>
    #include <mace/port/file_system.h>
    #include <mace/public/mace.h>
    int main() { ${body} }\n")
  set(CMAKE_TRY_COMPILE_TARGET_TYPE ${type})
  try_compile(succeeded ${CMAKE_BINARY_DIR}/CMakeFiles/FindMACE ${source}
    CMAKE_FLAGS -DINCLUDE_DIRECTORIES=${MACE_INCLUDE_DIR}
    LINK_LIBRARIES ${libraries}
    CXX_STANDARD 17
    CXX_STANDARD_REQUIRED ON
    OUTPUT_VARIABLE output)
  file(WRITE ${source}.log "${output}")
  set(${result} ${succeeded} PARENT_SCOPE)
  unset(succeeded CACHE)
endfunction()

# Sets MACE_USABLE, or MACE_REASON to one sentence on what is wrong.
function(_mace_check)
  set(log_dir ${CMAKE_BINARY_DIR}/CMakeFiles/FindMACE)
  _mace_try(headers_fit STATIC_LIBRARY "
    mace::MaceEngineConfig config;
    config.SetRuntimeType(mace::RT_HTP, \"default_graph\");
    config.SetQnnPerformance(mace::HEXAGON_BALANCED);
    config.SetAcceleratorCache(mace::ACCELERATOR_CACHE_LOAD, \"\", \"\");
    mace::MaceTensor tensor({1}, nullptr, mace::DataFormat::NONE,
                            mace::IDT_INT8, mace::CPU_BUFFER);
    std::unique_ptr<mace::port::ReadOnlyMemoryRegion> region;
    mace::port::Env::Default()->GetFileSystem()
        ->NewReadOnlyMemoryRegionFromFile(\"\", &region);" "")
  if(NOT headers_fit)
    set(MACE_REASON "The MACE headers in ${MACE_INCLUDE_DIR} are not those of \
MACE 1.1.1 or later, see ${log_dir}/headers_fit.cc.log." PARENT_SCOPE)
    return()
  endif()
  _mace_try(library_fits EXECUTABLE "
    mace::MaceEngineConfig config;
    std::shared_ptr<mace::MaceEngine> engine;
    mace::CreateMaceEngineFromProto(nullptr, 0, nullptr, 0, {}, {}, config,
                                    &engine);" "${MACE_LIBRARY};${MACE_NEEDS}")
  if(NOT library_fits)
    set(MACE_REASON "The library ${MACE_LIBRARY} cannot be linked with: it is \
for another machine or C++ library, or older than MACE 1.1.1, see \
${log_dir}/library_fits.cc.log." PARENT_SCOPE)
    return()
  endif()
  _mace_try(env_is_visible EXECUTABLE
    "mace::port::Env::Default();" "${MACE_LIBRARY};${MACE_NEEDS}")
  if(NOT env_is_visible)
    set(MACE_REASON "The library ${MACE_LIBRARY} hides \
mace::port::Env::Default(): build MACE with MACE_ENABLE_OPT_SIZE=OFF, or use \
its static library." PARENT_SCOPE)
    return()
  endif()
  set(MACE_USABLE TRUE PARENT_SCOPE)
endfunction()

if(NOT MACE_ROOT AND DEFINED ENV{MACE_ROOT})
  set(MACE_ROOT $ENV{MACE_ROOT})
endif()
# What a static library of the engine leaves open.
set(MACE_NEEDS Threads::Threads ${CMAKE_DL_LIBS})
if(ANDROID)
  list(APPEND MACE_NEEDS log)
endif()
unset(MACE_USABLE)

if(NOT MACE_ROOT)
  set(MACE_REASON "The MACE backend needs the engine's SDK: set MACE_ROOT to a \
directory with its include/ and lib/.")
else()
  get_filename_component(root ${MACE_ROOT} ABSOLUTE BASE_DIR ${CMAKE_SOURCE_DIR})
  find_path(MACE_INCLUDE_DIR mace/public/mace.h
    PATHS ${root}/include NO_CACHE NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  find_library(MACE_LIBRARY NAMES mace mace_static
    PATHS ${root}/lib/${CMAKE_ANDROID_ARCH_ABI}
      ${root}/lib/${CMAKE_LIBRARY_ARCHITECTURE} ${root}/lib
    NO_CACHE NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
  if(NOT MACE_INCLUDE_DIR)
    set(MACE_REASON "There is no include/mace/public/mace.h in ${root}: set \
MACE_ROOT to a directory with the include/ and lib/ of a MACE SDK.")
  elseif(NOT MACE_LIBRARY)
    set(MACE_REASON "There is no libmace.so, libmace.a or libmace_static.a in \
${root}/lib: set MACE_ROOT to a directory with the include/ and lib/ of a \
MACE SDK.")
  else()
    _mace_check()
  endif()
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(MACE
  REQUIRED_VARS MACE_LIBRARY MACE_INCLUDE_DIR MACE_USABLE
  FAIL_MESSAGE "${MACE_REASON}")

if(MACE_FOUND AND NOT TARGET MACE::MACE)
  add_library(MACE::MACE UNKNOWN IMPORTED)
  set_target_properties(MACE::MACE PROPERTIES
    IMPORTED_LOCATION ${MACE_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${MACE_INCLUDE_DIR}
    INTERFACE_LINK_LIBRARIES "${MACE_NEEDS}")
endif()
