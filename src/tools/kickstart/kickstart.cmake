# The remote desktop switch that the administration module runs as its
# kickstart tool: a core library (tested), the program, its tests and its
# install rule.
set(KICKSTART_DIR ${CMAKE_CURRENT_LIST_DIR})
file(GLOB KICKSTART_SRC CONFIGURE_DEPENDS ${KICKSTART_DIR}/*.cpp)
list(FILTER KICKSTART_SRC EXCLUDE REGEX "(_test|/main)\\.cpp$")
add_library(kickstart_core STATIC ${KICKSTART_SRC})
target_link_libraries(kickstart_core PUBLIC platform)

add_executable(kickstart ${KICKSTART_DIR}/main.cpp)
target_link_libraries(kickstart PRIVATE kickstart_core)

file(GLOB KICKSTART_TESTS CONFIGURE_DEPENDS ${KICKSTART_DIR}/*_test.cpp)
if(KICKSTART_TESTS)
  add_executable(kickstart_tests ${KICKSTART_TESTS})
  target_link_libraries(kickstart_tests PRIVATE kickstart_core GTest::gtest_main)
  gtest_discover_tests(kickstart_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endif()

# The host's tools table maps the module's kickstart tool to this path.
install(TARGETS kickstart RUNTIME DESTINATION /usr/libexec/hubwarden)
