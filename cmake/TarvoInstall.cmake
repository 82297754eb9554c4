# What is installed: the public headers, the library, its descriptions for CMake (find_package(tarvo), target
# tarvo::tarvo_gpu) and pkg-config (tarvo), the tool, and the documents. The installed tree can be moved.
include(CMakePackageConfigHelpers)

set(_tarvo_config_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tarvo")
install(TARGETS tarvo_gpu EXPORT tarvo-targets
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
install(EXPORT tarvo-targets NAMESPACE tarvo:: DESTINATION "${_tarvo_config_dir}")

configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/tarvo-config.cmake.in"
  "${PROJECT_BINARY_DIR}/package/tarvo-config.cmake" INSTALL_DESTINATION "${_tarvo_config_dir}")
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/package/tarvo-config-version.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/package/tarvo-config.cmake"
  "${PROJECT_BINARY_DIR}/package/tarvo-config-version.cmake" DESTINATION "${_tarvo_config_dir}")

# How to get from lib/pkgconfig (one folder deeper with multiarch folders) back to the prefix.
set(_tarvo_pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(_tarvo_pc_prefix "${CMAKE_INSTALL_PREFIX}")
  set(_tarvo_pc_libdir "${CMAKE_INSTALL_LIBDIR}")
else()
  file(RELATIVE_PATH _tarvo_up "/prefix/${_tarvo_pc_dir}" "/prefix")
  string(REGEX REPLACE "/$" "" _tarvo_up "${_tarvo_up}")
  set(_tarvo_pc_prefix "\${pcfiledir}/${_tarvo_up}")
  set(_tarvo_pc_libdir "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(_tarvo_pc_includedir "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(_tarvo_pc_includedir "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file("${CMAKE_CURRENT_LIST_DIR}/tarvo.pc.in" "${PROJECT_BINARY_DIR}/package/tarvo.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/package/tarvo.pc" DESTINATION "${_tarvo_pc_dir}")

if(TARGET tarvo_tool)
  install(TARGETS tarvo_tool RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
  # It finds the library beside itself, wherever the tree lies.
  if(NOT IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" AND NOT IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}")
    file(RELATIVE_PATH _tarvo_lib_from_bin "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
    set_target_properties(tarvo_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${_tarvo_lib_from_bin}")
  endif()
endif()

install(FILES "${PROJECT_SOURCE_DIR}/LICENSE" "${PROJECT_SOURCE_DIR}/README.md" "${PROJECT_SOURCE_DIR}/CHANGELOG.md"
  DESTINATION "${CMAKE_INSTALL_DOCDIR}")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/docs" DESTINATION "${CMAKE_INSTALL_DOCDIR}")
