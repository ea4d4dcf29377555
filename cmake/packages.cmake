# `cpack` makes Debian packages of what install.cmake installs, one a component.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME keymaster41-ts)
set(CPACK_PACKAGE_CONTACT "libkeymaster41_ts developers <keymaster41-ts@localhost.localdomain>"
  CACHE STRING "maintainer of the Debian packages")
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PRE_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/package_docs.cmake)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

# km_package(<component> <package> <section> DEPENDS <component>... DESCRIPTION <text>)
function(km_package component package section)
  cmake_parse_arguments(PARSE_ARGV 3 arg "" DESCRIPTION DEPENDS)
  string(TOUPPER ${component} upper)
  set(CPACK_COMPONENTS_ALL ${CPACK_COMPONENTS_ALL} ${component} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_NAME ${package} PARENT_SCOPE)
  set(CPACK_DEBIAN_${upper}_PACKAGE_SECTION ${section} PARENT_SCOPE)
  set(CPACK_COMPONENT_${upper}_DEPENDS ${arg_DEPENDS} PARENT_SCOPE)
  set(CPACK_COMPONENT_${upper}_DESCRIPTION ${arg_DESCRIPTION} PARENT_SCOPE)
endfunction()

km_package(library libkeymaster41-ts${PROJECT_VERSION_MAJOR} libs DEPENDS platform DESCRIPTION
"keymaster 4.1 back-end - shared library
The library turns each request of a keymaster HAL service into a command to the
keymaster trusted application, through the GlobalPlatform TEE Client API.")
km_package(development libkeymaster41-ts-dev libdevel DEPENDS library platform-development DESCRIPTION
"keymaster 4.1 back-end - development files
Headers, CMake package and pkg-config file, to build a keymaster HAL service.")
km_package(platform keymaster41-ts-platform libs DESCRIPTION
"keymaster 4.1 back-end - stand-ins for a device
Host versions of the libraries that a device supplies to the keymaster
back-end: the TEE client with a software keymaster trusted application, log,
watchdog, event reports, bounds-checked memory and keymaster support.")
km_package(platform-development keymaster41-ts-platform-dev libdevel DEPENDS platform DESCRIPTION
"keymaster 4.1 back-end - headers of the stand-ins for a device
The headers that come with a device's libraries, in the form of their host
versions.")
km_package(tools keymasterctl utils DEPENDS library platform DESCRIPTION
"keymaster 4.1 back-end - command line
keymasterctl makes, imports and uses keys that stay behind the keymaster's
trusted application, and shows what passes between the two.")
# What packages that link the library depend on, and the loader's cache.
set(shlibs ${PROJECT_BINARY_DIR}/package/shlibs)
set(triggers ${PROJECT_BINARY_DIR}/package/triggers)
file(WRITE ${shlibs} "libkeymaster41_ts ${PROJECT_VERSION_MAJOR} \
libkeymaster41-ts${PROJECT_VERSION_MAJOR} (>= ${PROJECT_VERSION})\n")
file(WRITE ${triggers} "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_EXTRA ${shlibs} ${triggers})
set(CPACK_DEBIAN_LIBRARY_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
