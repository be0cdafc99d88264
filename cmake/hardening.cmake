# What compilers and linkers do against bytes that overrun and pointers that lead astray: in every build of ours, and left
# to the other project where this one is a part of it.
option(LUMBRA_HARDEN "Build with the hardening of compiler and linker" ${PROJECT_IS_TOP_LEVEL})
if(NOT LUMBRA_HARDEN)
  return()
endif()

add_compile_options(-fstack-protector-strong)
# The library's checked functions need the optimiser, and would hide calls from the sanitizers.
if(NOT LUMBRA_SANITIZE AND NOT WIN32)
  add_compile_options($<$<AND:$<COMPILE_LANGUAGE:CXX>,$<NOT:$<CONFIG:Debug>>>:-U_FORTIFY_SOURCE>
                      $<$<AND:$<COMPILE_LANGUAGE:CXX>,$<NOT:$<CONFIG:Debug>>>:-D_FORTIFY_SOURCE=2>)
endif()
if(WIN32)
  # The compiler calls for src/platform/win32/stack_guard.cpp, and probes the stack page by page by itself. Addresses that
  # nobody can foresee, and no code in data.
  add_link_options(LINKER:--dynamicbase LINKER:--nxcompat)
  if(CMAKE_SIZEOF_VOID_P EQUAL 8)
    add_link_options(LINKER:--high-entropy-va)
  endif()
else()
  add_compile_options(-fstack-clash-protection)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|AMD64|i[3-6]86")
    add_compile_options(-fcf-protection)  # marks where jumps may land, for processors that check it
  endif()
  # Tables of the loader are written once, and programs lie where nobody expects them.
  add_link_options(LINKER:-z,relro LINKER:-z,now LINKER:-z,noexecstack)
  include(CheckPIESupported)
  check_pie_supported(LANGUAGES CXX)
endif()
