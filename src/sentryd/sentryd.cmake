# sentryd, the event monitor that mails the administrator: a core library
# (tested), the program, its tests, its benchmark and its install rules.
# Included from the top-level CMakeLists.txt after the shared targets exist.
file(GLOB SENTRYD_SRC CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/sentryd/*.cpp)
list(FILTER SENTRYD_SRC EXCLUDE REGEX "(_test|/main)\\.cpp$")
add_library(sentryd_core STATIC ${SENTRYD_SRC})
target_link_libraries(sentryd_core PUBLIC plist CURL::libcurl Threads::Threads)

add_executable(sentryd ${CMAKE_SOURCE_DIR}/src/sentryd/main.cpp)
target_link_libraries(sentryd PRIVATE sentryd_core)

file(GLOB SENTRYD_TESTS CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/sentryd/*_test.cpp)
if(SENTRYD_TESTS)
  add_executable(sentryd_tests ${SENTRYD_TESTS})
  target_link_libraries(sentryd_tests PRIVATE sentryd_core GTest::gtest_main)
  target_compile_definitions(sentryd_tests PRIVATE SENTRYD_SHIPPED_RULES="${CMAKE_SOURCE_DIR}/packaging/sentryd.d/rules")
  gtest_discover_tests(sentryd_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120)
endif()

# The benchmark glob of the top-level file may have made the target
# already; either way it needs the core library and the shipped rules.
if(HUBWARDEN_BENCH AND EXISTS ${CMAKE_SOURCE_DIR}/bench/sentryd_bench.cpp)
  if(NOT TARGET sentryd_bench)
    add_executable(sentryd_bench ${CMAKE_SOURCE_DIR}/bench/sentryd_bench.cpp)
  endif()
  target_link_libraries(sentryd_bench PRIVATE sentryd_core benchmark::benchmark)
  target_compile_definitions(sentryd_bench PRIVATE SENTRYD_SHIPPED_RULES="${CMAKE_SOURCE_DIR}/packaging/sentryd.d/rules")
endif()

install(TARGETS sentryd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
# The rule files are the administrator's (the module rewrites them in
# place), so they are installed as configuration, like the sample
# configuration beside them.
install(FILES ${CMAKE_SOURCE_DIR}/packaging/sentryd.d/rules/DiskStatus.plist
              ${CMAKE_SOURCE_DIR}/packaging/sentryd.d/rules/SWUpdate.plist
              ${CMAKE_SOURCE_DIR}/packaging/sentryd.d/rules/SentrydCertificateExpiring.plist
        DESTINATION /etc/sentryd.d/rules)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/sentryd.d/sentryd.conf.plist DESTINATION /etc/sentryd.d)
install(FILES ${CMAKE_SOURCE_DIR}/packaging/sentryd.service DESTINATION lib/systemd/system)
