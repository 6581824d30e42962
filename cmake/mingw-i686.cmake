# The 32-bit Windows target: libraries are linked statically, so that the DLL needs system DLLs only; how a program is
# linked is decided where it is declared.
# The posix-thread compiler, since the other one has no std::mutex, which the test framework wants.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86)
set(CMAKE_C_COMPILER i686-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER i686-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER i686-w64-mingw32-windres)
set(CMAKE_FIND_ROOT_PATH /usr/i686-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
# Modules are found by name: their exports are undecorated.
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-Wl,--enable-stdcall-fixup,--kill-at")

# Tests run on the 32-bit Wine that tests/windows/get-wine32.sh unpacks.
if(DEFINED ENV{WINE32})
  set(CMAKE_CROSSCOMPILING_EMULATOR "$ENV{WINE32}/run")
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR /opt/wine32/run)
endif()
