# What `cmake --install` puts where. The components:
#   library, development                    the library; its headers, CMake package, pkg-config file
#   platform, platform-development          what a device supplies itself; its headers
#   tools                                   keymasterctl
# Nothing in them holds the prefix: the tree may be moved after it was installed.
if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE)
  # Where Debian's tools look, under /usr and /usr/local alike.
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "folder of libraries")
endif()
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# Their names are those of other people's libraries, so the stand-ins stay out of the way of those.
set(KM_PLATFORM_LIBDIR ${CMAKE_INSTALL_LIBDIR}/keymaster41_ts)
set(KM_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/keymaster41_ts)
set(KM_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/keymaster41_ts)
set(KM_PLATFORM teec log zubrel qavix securec keymaster_support)

# km_install_headers(<target> <component> <folder>...) installs what a target's users include.
# Users of the installed target get <folder>... as include folders, the first holds the headers.
function(km_install_headers target component folder)
  get_target_property(source ${target} INTERFACE_INCLUDE_DIRECTORIES)
  install(DIRECTORY ${source}/ DESTINATION ${folder} COMPONENT ${component}
    PATTERN trusted_app.h EXCLUDE)
  set_target_properties(${target} PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "$<BUILD_INTERFACE:${source}>")
  target_include_directories(${target} INTERFACE "$<INSTALL_INTERFACE:${folder};${ARGN}>")
endfunction()

# A HAL service may say <keymaster41_ts/keymaster_tivas_context.h>, or the name alone as in a
# device build.
km_install_headers(keymaster41_ts development ${KM_INCLUDEDIR} ${CMAKE_INSTALL_INCLUDEDIR})
foreach(target ${KM_PLATFORM})
  km_install_headers(${target} platform-development ${KM_INCLUDEDIR}/platform)
endforeach()

set_target_properties(keymaster41_ts PROPERTIES INSTALL_RPATH "$ORIGIN/keymaster41_ts")
install(TARGETS keymaster41_ts EXPORT keymaster41_ts
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT library NAMELINK_COMPONENT development)
# libteec.so starts the worker that lies beside it.
install(TARGETS ${KM_PLATFORM} EXPORT keymaster41_ts
  LIBRARY DESTINATION ${KM_PLATFORM_LIBDIR} COMPONENT platform)
install(TARGETS tee-worker RUNTIME DESTINATION ${KM_PLATFORM_LIBDIR} COMPONENT platform)

file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
set_target_properties(keymasterctl PROPERTIES
  INSTALL_RPATH "$ORIGIN/${bin_to_lib};$ORIGIN/${bin_to_lib}/keymaster41_ts")
install(TARGETS keymasterctl RUNTIME COMPONENT tools)
# Its manual page and completion, which it prints itself while it is built.
install(DIRECTORY ${PROJECT_BINARY_DIR}/share/ DESTINATION ${CMAKE_INSTALL_DATADIR} COMPONENT tools
  OPTIONAL)

# The CMake package, and the pkg-config file, whose prefix is where it is found.
install(EXPORT keymaster41_ts NAMESPACE keymaster41_ts:: FILE keymaster41_ts-config.cmake
  DESTINATION ${KM_CMAKEDIR} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/keymaster41_ts-config-version.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/keymaster41_ts-config-version.cmake
  DESTINATION ${KM_CMAKEDIR} COMPONENT development)
file(RELATIVE_PATH KM_PC_TO_PREFIX
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/keymaster41_ts.pc.in keymaster41_ts.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/keymaster41_ts.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# All that is installed, without the tests.
add_custom_target(packaged DEPENDS keymaster41_ts ${KM_PLATFORM} tee-worker keymasterctl)
if(TARGET keymasterctl_share)
  add_dependencies(packaged keymasterctl_share)
endif()
