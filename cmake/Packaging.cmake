# Debian packages, written by `cpack` in a build directory:
#   libelementgateway1       the gateway library
#   libelementgateway-dev    headers (public, host, simulator), CMake package, pkg-config file
#   elementgateway-panelsim  the panel simulator and the tools (simulator builds only)
# The architecture is the target's; dependencies on the C and C++ runtimes are stated, not
# computed, so that cross builds package the same way.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME elementgateway)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "elementGateway maintainers")
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(egw_runtime_depends "libc6 (>= 2.36), libstdc++6 (>= 12)")
set(CPACK_DEBIAN_PACKAGE_DEPENDS "${egw_runtime_depends}")

set(egw_deb_architectures
  x86_64-linux-gnu amd64 i386-linux-gnu i386 arm-linux-gnueabihf armhf aarch64-linux-gnu arm64)
list(FIND egw_deb_architectures "${CMAKE_LIBRARY_ARCHITECTURE}" index)
if(index GREATER_EQUAL 0)
  math(EXPR index "${index} + 1")
  list(GET egw_deb_architectures ${index} CPACK_DEBIAN_PACKAGE_ARCHITECTURE)
endif()

set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libelementgateway${PROJECT_VERSION_MAJOR})
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Element gateway of the fire-detection panel: the library")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libelementgateway-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Element gateway of the fire-detection panel: headers, CMake package and pkg-config file")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (= ${PROJECT_VERSION})")
if(NOT EGW_EXTERNAL_HOST)
  # The library links the simulator in these builds; the simulator's package carries the tools.
  list(APPEND CPACK_COMPONENTS_ALL panelsim tools)
  set(CPACK_COMPONENT_PANELSIM_GROUP simulator)
  set(CPACK_COMPONENT_TOOLS_GROUP simulator)
  set(CPACK_DEBIAN_SIMULATOR_PACKAGE_NAME elementgateway-panelsim)
  set(CPACK_DEBIAN_SIMULATOR_PACKAGE_SECTION devel)
  set(CPACK_COMPONENT_GROUP_SIMULATOR_DESCRIPTION
      "Element gateway of the fire-detection panel: panel simulator and tools")
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS
      "elementgateway-panelsim (= ${PROJECT_VERSION}), ${egw_runtime_depends}")
endif()
include(CPack)
