# zon_library(NAME zonosse SOURCES a.cpp ... MAP zonosse.map DEPENDS zonother ...)
#
# Makes the object library NAME_objects (tests of internals link it) and the shared library libNAME.so.1 from it, whose
# exports are exactly what the version script MAP lists.
function(zon_library)
  cmake_parse_arguments(ARG "" "NAME;MAP" "SOURCES;DEPENDS" ${ARGN})
  add_library(${ARG_NAME}_objects OBJECT ${ARG_SOURCES})
  target_include_directories(${ARG_NAME}_objects PUBLIC
    "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/src")
  target_compile_definitions(${ARG_NAME}_objects PRIVATE ZON_BUILDING)

  add_library(${ARG_NAME} SHARED $<TARGET_OBJECTS:${ARG_NAME}_objects>)
  target_include_directories(${ARG_NAME} PUBLIC
    "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>" "$<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>")
  set(map "${CMAKE_CURRENT_SOURCE_DIR}/${ARG_MAP}")
  target_link_options(${ARG_NAME} PRIVATE "-Wl,--version-script=${map}")
  set_target_properties(${ARG_NAME} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION 1 LINKER_LANGUAGE CXX LINK_DEPENDS "${map}"
    BUILD_RPATH "$ORIGIN" INSTALL_RPATH "$ORIGIN" EXPORT_NAME ${ARG_NAME})
  foreach(dependency IN LISTS ARG_DEPENDS)
    target_link_libraries(${ARG_NAME} PUBLIC ${dependency})
    target_link_libraries(${ARG_NAME}_objects PUBLIC ${dependency})
  endforeach()
  set_property(GLOBAL APPEND PROPERTY ZON_LIBRARIES ${ARG_NAME})
endfunction()
