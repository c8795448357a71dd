# Installs both libraries, the public, host and simulator headers, the CMake package
# (find_package(elementGateway CONFIG): elementGateway::elementGateway, elementGateway::panelsim)
# and a pkg-config file.
include(CMakePackageConfigHelpers)

set(EGW_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/elementGateway)
install(TARGETS elementGateway EXPORT elementGatewayTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${EGW_INCLUDE_SUBDIR})
if(EGW_EXTERNAL_HOST)
  install(TARGETS egw_host EXPORT elementGatewayTargets)
else()
  # The simulator is packaged with the tools, apart from the library that the panel runs.
  install(TARGETS panelsim EXPORT elementGatewayTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT panelsim NAMELINK_COMPONENT development
    INCLUDES DESTINATION ${EGW_INCLUDE_SUBDIR})
endif()
# Installed programs and libraries find the libraries beside them wherever the tree is installed,
# unpacked or moved: their run path is relative to their own place ($ORIGIN), never the build's.
file(RELATIVE_PATH EGW_BIN_TO_LIB /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${CMAKE_INSTALL_LIBDIR})
set_target_properties(elementGateway PROPERTIES INSTALL_RPATH "$ORIGIN")
foreach(program egw egwd)
  if(TARGET ${program})
    set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${EGW_BIN_TO_LIB}")
  endif()
endforeach()

install(FILES elementGateway.h DESTINATION ${EGW_INCLUDE_SUBDIR} COMPONENT development)
install(FILES api/gatewayTypes.h api/gatewayApi.h DESTINATION ${EGW_INCLUDE_SUBDIR}/api
        COMPONENT development)
install(FILES composite/gatewayComposite.h DESTINATION ${EGW_INCLUDE_SUBDIR}/composite
        COMPONENT development)
install(FILES identity/gatewayIdentity.h DESTINATION ${EGW_INCLUDE_SUBDIR}/identity
        COMPONENT development)
install(DIRECTORY host/ DESTINATION ${EGW_INCLUDE_SUBDIR}/host COMPONENT development
        FILES_MATCHING PATTERN "*.h")

install(EXPORT elementGatewayTargets NAMESPACE elementGateway:: DESTINATION ${EGW_CMAKE_DIR}
        COMPONENT development)
configure_package_config_file(cmake/elementGatewayConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/elementGatewayConfig.cmake INSTALL_DESTINATION ${EGW_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/elementGatewayConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/elementGatewayConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/elementGatewayConfigVersion.cmake
        DESTINATION ${EGW_CMAKE_DIR} COMPONENT development)

# The pkg-config file names its prefix relative to itself, so an installed tree can be moved
# (a package unpacked elsewhere, a target root mounted on the build machine).
file(RELATIVE_PATH EGW_PC_PREFIX_FROM_PCDIR /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
string(REGEX REPLACE "/$" "" EGW_PC_PREFIX_FROM_PCDIR "${EGW_PC_PREFIX_FROM_PCDIR}")
set(EGW_PC_HOST_LIBS -lpanelsim)
if(EGW_EXTERNAL_HOST)
  # Paths and linker flags stay as given; bare names become -l flags.
  list(TRANSFORM EGW_HOST_LIBRARIES REPLACE "^([^-/].*)$" "-l\\1" OUTPUT_VARIABLE EGW_PC_HOST_LIBS)
  string(JOIN " " EGW_PC_HOST_LIBS ${EGW_PC_HOST_LIBS})
endif()
set(EGW_PC_CFLAGS "")
if(EGW_LEGACY_CXX_ABI)
  set(EGW_PC_CFLAGS " -D_GLIBCXX_USE_CXX11_ABI=0")
endif()
configure_file(cmake/elementGateway.pc.in ${CMAKE_CURRENT_BINARY_DIR}/elementGateway.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/elementGateway.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
