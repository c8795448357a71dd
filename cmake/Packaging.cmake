# Debian packages, written by `cpack` in a build directory:
#   libelementgateway1       the gateway library
#   libelementgateway-dev    headers (public, host, simulator), CMake package, pkg-config file
#   elementgateway-panelsim  the panel simulator (simulator builds only)
#   elementgateway-tools     the panel tool egw and its sample panel (simulator builds only)
#   elementgateway-service   the panel service egwd, its unit and page, its interface definition,
#                            the Python client
# Each package depends on every package whose libraries its files load: the packages of this build
# by name, the system's computed by dpkg-shlibdeps on the build machine and stated for a cross build
# (dpkg-shlibdeps knows only the build machine's packages): the C and C++ runtimes, and those of
# the target root from its packages' shlibs files. The architecture is the target's. The
# package test checks every package's dependencies against what its files load.
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
if(CMAKE_CROSSCOMPILING)
  set(egw_runtime_depends "libc6 (>= 2.36)" "libgcc-s1 (>= 3.0)" "libstdc++6 (>= 12)")
  # The shared libraries of the target root that egwd and egw --connect load (OpenSSL, SQLite),
  # named as the shlibs files of the root's Debian packages name them; Thrift is linked in.
  set(egw_target_root_depends)
  if(EGW_TARGET_ROOT AND EXISTS ${EGW_TARGET_ROOT}/shlibs)
    file(STRINGS ${EGW_TARGET_ROOT}/shlibs egw_shlibs REGEX "^lib")
    foreach(line IN LISTS egw_shlibs)
      if(line MATCHES "^[^ ]+ [^ ]+ (.+)$")
        list(APPEND egw_target_root_depends "${CMAKE_MATCH_1}")
      endif()
    endforeach()
    list(REMOVE_DUPLICATES egw_target_root_depends)
  endif()
else()
  # Every system library a file loads (the service's Thrift runtime for egw --connect among them);
  # the libraries of this build are found in the build tree and named below.
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR} ${CMAKE_BINARY_DIR}/panelsim)
  set(egw_runtime_depends)
endif()
# The Depends field of a package: the packages given and the system's runtimes.
function(egw_depends variable)
  set(all ${ARGN} ${egw_runtime_depends})
  list(JOIN all ", " text)
  set(${variable} "${text}" PARENT_SCOPE)
endfunction()
egw_depends(CPACK_DEBIAN_PACKAGE_DEPENDS)

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
  # The library links the simulator in these builds.
  list(APPEND CPACK_COMPONENTS_ALL panelsim tools)
  set(egw_version_depends "(= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_PANELSIM_PACKAGE_NAME elementgateway-panelsim)
  set(CPACK_DEBIAN_PANELSIM_PACKAGE_SECTION devel)
  set(CPACK_COMPONENT_PANELSIM_DESCRIPTION
      "Element gateway of the fire-detection panel: the panel simulator")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME elementgateway-tools)
  set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION devel)
  set(CPACK_COMPONENT_TOOLS_DESCRIPTION
      "Element gateway of the fire-detection panel: the panel tool egw and a sample panel")
  set(runtime "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} ${egw_version_depends}")
  set(simulator "elementgateway-panelsim ${egw_version_depends}")
  egw_depends(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${simulator}")
  if(TARGET egwd)
    # egw --connect talks to egwd with the service's client.
    egw_depends(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${runtime}" "${simulator}"
                ${egw_target_root_depends})
  else()
    egw_depends(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "${runtime}" "${simulator}")
  endif()
  # The development links name both libraries.
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${runtime}, ${simulator}")
  if(TARGET egwd)
    # egwd, its unit, its page, its interface definition, the generated Python module and the
    # example client. The Python module runs on Debian's python3-thrift, which egwd itself does
    # not need: a board's image leaves it out (recommended, not required).
    list(APPEND CPACK_COMPONENTS_ALL service)
    set(CPACK_DEBIAN_SERVICE_PACKAGE_NAME elementgateway-service)
    set(CPACK_DEBIAN_SERVICE_PACKAGE_SECTION net)
    set(CPACK_COMPONENT_SERVICE_DESCRIPTION
        "Element gateway of the fire-detection panel: the panel service egwd and its clients")
    egw_depends(CPACK_DEBIAN_SERVICE_PACKAGE_DEPENDS "${runtime}" "${simulator}"
                ${egw_target_root_depends})
    set(CPACK_DEBIAN_SERVICE_PACKAGE_RECOMMENDS python3-thrift)
    set(CPACK_DEBIAN_SERVICE_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/service/debian/conffiles)
  endif()
endif()
include(CPack)
