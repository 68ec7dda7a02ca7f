# The web console: its own files and the vendored charting library, copied
# into web/ of the build tree (where a program run from the tree finds them)
# and installed to /usr/share/hubwardend/web. Included from the top-level
# CMakeLists.txt.
set(HUBWARDEN_UPLOT_DIR ${CMAKE_SOURCE_DIR}/.deps/uplot/dist
    CACHE PATH "uPlot's dist folder (fetched by scripts/fetch_sources)")
file(GLOB_RECURSE HUBWARDEN_WEB_SOURCES CONFIGURE_DEPENDS
     RELATIVE ${CMAKE_SOURCE_DIR}/web
     ${CMAKE_SOURCE_DIR}/web/*.html ${CMAKE_SOURCE_DIR}/web/*.js ${CMAKE_SOURCE_DIR}/web/*.css
     ${CMAKE_SOURCE_DIR}/web/*.svg)
set(HUBWARDEN_WEB_OUTPUTS)
foreach(file ${HUBWARDEN_WEB_SOURCES})
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/web/${file}
                     COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_SOURCE_DIR}/web/${file} ${CMAKE_BINARY_DIR}/web/${file}
                     DEPENDS ${CMAKE_SOURCE_DIR}/web/${file})
  list(APPEND HUBWARDEN_WEB_OUTPUTS ${CMAKE_BINARY_DIR}/web/${file})
endforeach()
foreach(file uPlot.iife.min.js uPlot.min.css)
  if(NOT EXISTS ${HUBWARDEN_UPLOT_DIR}/${file})
    message(FATAL_ERROR "${HUBWARDEN_UPLOT_DIR}/${file} is missing: run scripts/setup "
                        "(it fetches it into .deps/), or set HUBWARDEN_UPLOT_DIR")
  endif()
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/web/vendor/${file}
                     COMMAND ${CMAKE_COMMAND} -E copy ${HUBWARDEN_UPLOT_DIR}/${file} ${CMAKE_BINARY_DIR}/web/vendor/${file}
                     DEPENDS ${HUBWARDEN_UPLOT_DIR}/${file})
  list(APPEND HUBWARDEN_WEB_OUTPUTS ${CMAKE_BINARY_DIR}/web/vendor/${file})
endforeach()
add_custom_target(web_assets ALL DEPENDS ${HUBWARDEN_WEB_OUTPUTS})
if(TARGET hubwardend)
  add_dependencies(hubwardend web_assets)
endif()

install(DIRECTORY ${CMAKE_BINARY_DIR}/web/ DESTINATION ${CMAKE_INSTALL_DATADIR}/hubwardend/web
        FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
install(FILES ${HUBWARDEN_UPLOT_DIR}/../LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME uPlot.LICENSE)
