# For 64-bit Arm on Android: the toolchain file of the NDK that the environment
# names.
foreach(ndk "$ENV{ANDROID_NDK_HOME}" "$ENV{ANDROID_NDK}")
  if(ndk)
    set(toolchain_file ${ndk}/build/cmake/android.toolchain.cmake)
    break()
  endif()
endforeach()
if(NOT EXISTS "${toolchain_file}")
  message(FATAL_ERROR "The Android NDK is missing: set ANDROID_NDK_HOME or "
    "ANDROID_NDK in the environment to the directory of NDK r26 or newer.")
endif()
include(${toolchain_file})
