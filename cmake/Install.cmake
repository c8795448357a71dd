# Installs both libraries, the public, host and simulator headers, the CMake package
# (find_package(elementGateway CONFIG): elementGateway::elementGateway, elementGateway::panelsim)
# and a pkg-config file.
include(CMakePackageConfigHelpers)

set(EGW_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/elementGateway)
set(EGW_EXPORTED_TARGETS elementGateway)
if(EGW_EXTERNAL_HOST)
  list(APPEND EGW_EXPORTED_TARGETS egw_host)
else()
  list(APPEND EGW_EXPORTED_TARGETS panelsim)
endif()

install(TARGETS ${EGW_EXPORTED_TARGETS} EXPORT elementGatewayTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${EGW_INCLUDE_SUBDIR})
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

configure_file(cmake/elementGateway.pc.in ${CMAKE_CURRENT_BINARY_DIR}/elementGateway.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/elementGateway.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
