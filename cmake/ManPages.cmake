# Manual pages of egw and egwd, made at build time by help2man from their --help and --version, so
# that a page never says other than the program does. Installed (gzipped, as Debian keeps them) to
# share/man/man1 with the program's component. A cross build cannot run its programs: it ships
# none, and says so.
find_program(EGW_HELP2MAN help2man)
function(egw_man_page target component summary)
  if(NOT TARGET ${target})
    return()
  endif()
  set(page ${CMAKE_CURRENT_BINARY_DIR}/man/${target}.1)
  add_custom_command(OUTPUT ${page}.gz
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/man
    COMMAND ${EGW_HELP2MAN} --no-info --section 1 --name ${summary} --output ${page}
            $<TARGET_FILE:${target}>
    COMMAND gzip -n -9 -f ${page}
    DEPENDS ${target}
    COMMENT "Writing the manual page of ${target}"
    VERBATIM)
  add_custom_target(${target}_man ALL DEPENDS ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT ${component})
endfunction()
if(CMAKE_CROSSCOMPILING)
  message(STATUS "Manual pages: not made in a cross build (its programs do not run here)")
elseif(NOT EGW_HELP2MAN)
  message(WARNING "help2man not found (scripts/setup.sh installs it): no manual pages")
else()
  egw_man_page(egw tools "the panel tool: the element tree of the fire-detection panel")
  egw_man_page(egwd service "the panel service: the element tree over Apache Thrift")
endif()
