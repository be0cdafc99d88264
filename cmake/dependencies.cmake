# What is used from outside: Debian's packages (CONTRIBUTING.md says why). Natively their own CMake packages describe
# them. A build for Windows takes the libraries that are headers alone through a folder that holds nothing else, since
# /usr/include has the headers of this system's C library, and builds the test library from the sources that its package
# installs.
if(NOT CMAKE_CROSSCOMPILING)
  if(LUMBRA_HOST)
    find_package(utf8cpp REQUIRED)
    find_package(nlohmann_json REQUIRED)
  endif()
  if(LUMBRA_TOOL)
    find_package(CLI11 REQUIRED)
  endif()
  if(LUMBRA_TOOL OR LUMBRA_TESTS OR LUMBRA_FUZZ)
    find_package(date REQUIRED)
  endif()
  if(LUMBRA_TESTS)
    find_package(GTest REQUIRED)
  endif()
  return()
endif()

foreach(header CLI nlohmann utf8 utf8.h date)
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/headers)
  file(CREATE_LINK /usr/include/${header} ${PROJECT_BINARY_DIR}/headers/${header} SYMBOLIC)
endforeach()
foreach(library utf8cpp CLI11::CLI11 nlohmann_json::nlohmann_json date::date)
  add_library(${library} INTERFACE IMPORTED GLOBAL)
  target_include_directories(${library} SYSTEM INTERFACE ${PROJECT_BINARY_DIR}/headers)
endforeach()

if(LUMBRA_TESTS)
  add_subdirectory(/usr/src/googletest ${PROJECT_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
  # In the standard of the tests: only then it prints texts of char8_t.
  foreach(library gtest gtest_main gmock)
    target_compile_features(${library} PRIVATE cxx_std_20)
    target_compile_options(${library} PRIVATE -w)
  endforeach()
endif()
