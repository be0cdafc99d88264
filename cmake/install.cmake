# What is installed, and the packages for Debian. The components are "library" (headers, archive, what CMake and
# pkg-config read), "tool" (the tool, its manual page and completion, the module), "pages" (README.md and docs/) and
# "documents" (licence and changes).
#   cmake --install build/release --prefix DIR [--component library]
#   scripts/build.sh release lumbra_packages
# Nothing that is installed says where: it is found beside itself, wherever the prefix is.

# Debian looks for libraries in one folder for each kind of machine, with every prefix.
if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE AND NOT CMAKE_CROSSCOMPILING)
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Folder of libraries, below the prefix")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# ---- The library ------------------------------------------------------------------------------------------

set(cmake_folder ${CMAKE_INSTALL_LIBDIR}/cmake/Lumbra)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/lumbra DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT library)
set_target_properties(lumbra_store PROPERTIES OUTPUT_NAME lumbra)  # -llumbra
install(TARGETS lumbra_store EXPORT LumbraTargets ARCHIVE COMPONENT library)
install(EXPORT LumbraTargets NAMESPACE Lumbra:: DESTINATION ${cmake_folder} COMPONENT library)

set(LUMBRA_MODULE_NAME lumbra${CMAKE_SHARED_LIBRARY_SUFFIX})
set(LUMBRA_MODULE_FILE ${CMAKE_INSTALL_LIBDIR}/lumbra/${LUMBRA_MODULE_NAME})
set(package ${CMAKE_CURRENT_LIST_DIR}/package)
set(made ${PROJECT_BINARY_DIR}/package)
configure_package_config_file(${package}/LumbraConfig.cmake.in ${made}/LumbraConfig.cmake
  INSTALL_DESTINATION ${cmake_folder} PATH_VARS LUMBRA_MODULE_FILE)
write_basic_package_version_file(${made}/LumbraConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${made}/LumbraConfig.cmake ${made}/LumbraConfigVersion.cmake DESTINATION ${cmake_folder}
  COMPONENT library)

file(RELATIVE_PATH LUMBRA_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" LUMBRA_PC_PREFIX ${LUMBRA_PC_PREFIX})
list(TRANSFORM CMAKE_DL_LIBS PREPEND -l OUTPUT_VARIABLE libraries)
list(JOIN libraries " " LUMBRA_PC_LIBS)
configure_file(${package}/lumbra.pc.in ${made}/lumbra.pc @ONLY)
install(FILES ${made}/lumbra.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT library)

# ---- The module and the tool ------------------------------------------------------------------------------

set(module_folder DESTINATION ${CMAKE_INSTALL_LIBDIR}/lumbra COMPONENT tool)
install(TARGETS lumbra_module LIBRARY ${module_folder} RUNTIME ${module_folder})
if(LUMBRA_TOOL)
  install(TARGETS lumbra_tool RUNTIME COMPONENT tool)
endif()

install(FILES ${PROJECT_SOURCE_DIR}/LICENSE ${PROJECT_SOURCE_DIR}/CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT documents)
# Unpacked and in the folders that they have here, since they lead to one another.
set(pages ${PROJECT_SOURCE_DIR}/README.md ${PROJECT_SOURCE_DIR}/CONTRIBUTING.md)
install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT pages)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT pages)

# The tool describes itself; and gzip packs what Debian wants packed, without a name and a time.
find_program(LUMBRA_GZIP gzip)
if(NOT LUMBRA_TOOL OR NOT LUMBRA_GZIP OR CMAKE_CROSSCOMPILING)
  return()
endif()
function(lumbra_gzip from to)
  add_custom_command(OUTPUT ${made}/${to} COMMAND ${LUMBRA_GZIP} -9nc ${from} > ${made}/${to} DEPENDS ${from} VERBATIM)
endfunction()
add_custom_command(OUTPUT ${made}/lumbra.1 ${made}/lumbra.bash
  COMMAND lumbra_tool --help-manual > ${made}/lumbra.1
  COMMAND lumbra_tool --help-bash-completion > ${made}/lumbra.bash
  DEPENDS lumbra_tool VERBATIM)
lumbra_gzip(${made}/lumbra.1 lumbra.1.gz)
lumbra_gzip(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog.gz)
lumbra_gzip(${package}/changelog changelog.Debian.gz)
set(documents ${made}/changelog.gz ${made}/changelog.Debian.gz ${package}/copyright)
add_custom_target(lumbra_manual ALL DEPENDS ${made}/lumbra.1.gz ${documents})
install(FILES ${made}/lumbra.1.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
install(FILES ${made}/lumbra.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME lumbra
  COMPONENT tool)

# ---- Packages ---------------------------------------------------------------------------------------------

# What Debian asks of each package beside the components.
set(folder ${CMAKE_INSTALL_DATADIR}/doc)
install(FILES ${documents} DESTINATION ${folder}/lumbra COMPONENT tool_debian EXCLUDE_FROM_ALL)
install(FILES ${documents} DESTINATION ${folder}/liblumbra-dev COMPONENT library_debian EXCLUDE_FROM_ALL)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples DESTINATION ${folder}/liblumbra-dev COMPONENT library_debian
  EXCLUDE_FROM_ALL FILES_MATCHING PATTERN *.cpp PATTERN *.h)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package begins with its own
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL library library_debian tool tool_debian pages)
foreach(part LIBRARY TOOL)
  set(CPACK_COMPONENT_${part}_GROUP ${part}_PACKAGE)
  set(CPACK_COMPONENT_${part}_DEBIAN_GROUP ${part}_PACKAGE)
endforeach()
set(CPACK_COMPONENT_PAGES_GROUP TOOL_PACKAGE)
set(CPACK_PACKAGE_CONTACT "Lumbra developers <lumbra@lumbra.invalid>")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)

set(CPACK_DEBIAN_TOOL_PACKAGE_PACKAGE_NAME lumbra)
set(CPACK_DEBIAN_TOOL_PACKAGE_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOL_PACKAGE_DESCRIPTION "event and object store in a folder: tool and module
Lumbra keeps events, records of a fixed size, and the files and other named
objects that they are about, in a folder of files that stays as small as its
limits by count, size and age say. What was answered survives a killed
process, and what was flushed a power cut.
.
This package has the command-line tool, which records, shows, verifies, backs
up and repairs, the module that a program loads at run time, and the
documentation.")

set(CPACK_DEBIAN_LIBRARY_PACKAGE_PACKAGE_NAME liblumbra-dev)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_LIBRARY_PACKAGE_PACKAGE_RECOMMENDS "lumbra (= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_DESCRIPTION "event and object store in a folder: C++ library
Lumbra keeps events, records of a fixed size, and the files and other named
objects that they are about, in a folder of files that stays as small as its
limits by count, size and age say. What was answered survives a killed
process, and what was flushed a power cut.
.
This package has the headers and the static library for programs in C++20,
with what CMake and pkg-config need to find them.")
include(CPack)
# What they hold, and no more, is built for them.
add_custom_target(lumbra_packages COMMAND ${CMAKE_CPACK_COMMAND} -G DEB
  DEPENDS lumbra_store lumbra_module lumbra_tool lumbra_manual VERBATIM)
