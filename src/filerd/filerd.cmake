# hubwarden-filerd, the file server's control daemon bridged to Samba: a
# core library (tested), the program, a small client for the end-to-end
# test and measurements, its tests and its install rules. Included from the
# top-level CMakeLists.txt after the shared targets exist.
file(GLOB FILERD_SRC CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/filerd/*.cpp)
list(FILTER FILERD_SRC EXCLUDE REGEX "(_test|/main)\\.cpp$")
add_library(filerd_core STATIC ${FILERD_SRC})
target_link_libraries(filerd_core PUBLIC platform Threads::Threads)

add_executable(hubwarden-filerd ${CMAKE_SOURCE_DIR}/src/filerd/main.cpp)
target_link_libraries(hubwarden-filerd PRIVATE filerd_core)

# Not installed: speaks the control exchange for scripts/samba_test.
add_executable(filerd_probe ${CMAKE_SOURCE_DIR}/src/filerd/probe/filerd_probe.cpp)
target_link_libraries(filerd_probe PRIVATE filerd_core)

file(GLOB FILERD_TESTS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/filerd/*_test.cpp)
if(FILERD_TESTS)
  add_executable(filerd_tests ${FILERD_TESTS})
  target_link_libraries(filerd_tests PRIVATE filerd_core platform_fake GTest::gtest_main)
  gtest_discover_tests(filerd_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endif()

install(TARGETS hubwarden-filerd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${CMAKE_SOURCE_DIR}/packaging/filerd.conf.plist DESTINATION /etc/hubwarden)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/hubwarden-filerd.service DESTINATION lib/systemd/system)
