# What is installed, and the packages made of it. The components are library,
# dev (headers, CMake and pkg-config files) and tool.
include(CMakePackageConfigHelpers)

# The engine does not go beside the library, where other programs would find
# it too, but into a folder of the library's own.
set_target_properties(tarn PROPERTIES INSTALL_RPATH "$ORIGIN;$ORIGIN/tarn")

install(TARGETS tarn EXPORT tarn-targets
  LIBRARY COMPONENT library NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
if(TARN_INSTALL_ENGINE AND TARN_BACKEND_ONNX)
  # With the links to it: which name the library asks for is the engine's choice.
  file(GLOB engine_files ${ONNXRuntime_LIBRARY}*)
  install(FILES ${engine_files}
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/tarn COMPONENT library)
endif()

install(DIRECTORY ${TARN_INCLUDE_DIR}/tarn
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(EXPORT tarn-targets
  FILE tarnConfig.cmake
  NAMESPACE tarn::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn COMPONENT dev)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tarnConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/tarn COMPONENT dev)

file(RELATIVE_PATH TARN_TO_PREFIX
  /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${CMAKE_CURRENT_LIST_DIR}/tarn.pc.in tarn.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarn.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

if(TARGET tarn-tool)
  file(RELATIVE_PATH to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(tarn-tool PROPERTIES
    INSTALL_RPATH "$ORIGIN/${to_lib};$ORIGIN/${to_lib}/tarn")
  install(TARGETS tarn-tool RUNTIME COMPONENT tool)
  install(FILES ${PROJECT_SOURCE_DIR}/docs/tarn.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
endif()

if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()
set(CPACK_GENERATOR DEB TGZ)
if(CMAKE_CROSSCOMPILING)
  set(CPACK_GENERATOR TGZ)
endif()
set(CPACK_SYSTEM_NAME ${CMAKE_SYSTEM_NAME}-${CMAKE_SYSTEM_PROCESSOR})
set(CPACK_PACKAGE_CONTACT "Tarn's developers")
set(CPACK_COMPONENTS_ALL library dev tool)
set(CPACK_COMPONENT_DEV_DEPENDS library)
set(CPACK_COMPONENT_TOOL_DEPENDS library)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_NAME libtarn${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtarn-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_TOOL_PACKAGE_NAME tarn)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION sound)
# What these folders hold is no other package's.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})
if(ONNXRuntime_LIBRARY)
  get_filename_component(directory ${ONNXRuntime_LIBRARY} DIRECTORY)
  list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${directory})
endif()
include(CPack)
