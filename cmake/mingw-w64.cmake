# Cross-building for Windows with Debian's MinGW-w64. LUMBRA_WINDOWS_CPU says for which machines: i686 (x86) or x86_64.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR ${LUMBRA_WINDOWS_CPU})
set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES LUMBRA_WINDOWS_CPU)

# The flavour whose threads the C++ library knows. The test library's own project asks for a C compiler, too.
set(CMAKE_C_COMPILER ${LUMBRA_WINDOWS_CPU}-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER ${LUMBRA_WINDOWS_CPU}-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER ${LUMBRA_WINDOWS_CPU}-w64-mingw32-windres)

# Programs are those of the machine that builds; everything else is the target's.
set(CMAKE_FIND_ROOT_PATH /usr/${LUMBRA_WINDOWS_CPU}-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Debian's Wine runs programs for x86-64.
if(LUMBRA_WINDOWS_CPU STREQUAL x86_64)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/../scripts/wine.sh)
endif()
