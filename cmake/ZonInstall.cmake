# What an installation holds: libraries, headers, the CMake package, the pkg-config file, documents and examples.
#
# The rule: the installed tree can be moved; nothing in it names the prefix that it was installed to.
include(CMakePackageConfigHelpers)

set(ZON_CMAKE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/zonmdfile")
set(ZON_PKGCONFIG_DIR "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

get_property(zon_libraries GLOBAL PROPERTY ZON_LIBRARIES)
install(TARGETS ${zon_libraries} EXPORT zonmdfileTargets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/zonmdfile" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
  FILES_MATCHING PATTERN "*.h")

install(EXPORT zonmdfileTargets NAMESPACE zonmdfile:: DESTINATION "${ZON_CMAKE_DIR}")
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/zonmdfileConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/zonmdfileConfig.cmake" INSTALL_DESTINATION "${ZON_CMAKE_DIR}"
  NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/zonmdfileConfigVersion.cmake" COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/zonmdfileConfig.cmake" "${PROJECT_BINARY_DIR}/zonmdfileConfigVersion.cmake"
  DESTINATION "${ZON_CMAKE_DIR}")

# pkg-config sets pcfiledir to the folder of the file: from there the prefix is found wherever the tree lies.
file(RELATIVE_PATH ZON_PREFIX_FROM_PC "/prefix/${ZON_PKGCONFIG_DIR}" "/prefix")
string(REGEX REPLACE "/$" "" ZON_PREFIX_FROM_PC "${ZON_PREFIX_FROM_PC}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/zonmdfile.pc.in" "${PROJECT_BINARY_DIR}/zonmdfile.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/zonmdfile.pc" DESTINATION "${ZON_PKGCONFIG_DIR}")

install(FILES README.md CHANGELOG.md LICENSE DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(DIRECTORY docs DESTINATION "${CMAKE_INSTALL_DOCDIR}" FILES_MATCHING PATTERN "*.md")
install(DIRECTORY examples DESTINATION "${CMAKE_INSTALL_DATADIR}/zonmdfile"
  FILES_MATCHING PATTERN "*.c" PATTERN "*.cpp" PATTERN "*.h" PATTERN "*.tsv" PATTERN "CMakeLists.txt" PATTERN "*.md")
