# The apt-backed update tool that the administration module runs to scan
# for and install updates: a core library (tested), the program, its tests
# and its install rule.
set(SWUPDATE_DIR ${CMAKE_CURRENT_LIST_DIR})
file(GLOB SWUPDATE_SRC CONFIGURE_DEPENDS ${SWUPDATE_DIR}/*.cpp)
list(FILTER SWUPDATE_SRC EXCLUDE REGEX "(_test|/main)\\.cpp$")
add_library(softwareupdate_core STATIC ${SWUPDATE_SRC})
target_link_libraries(softwareupdate_core PUBLIC platform plist)

add_executable(softwareupdate ${SWUPDATE_DIR}/main.cpp)
target_link_libraries(softwareupdate PRIVATE softwareupdate_core)

file(GLOB SWUPDATE_TESTS CONFIGURE_DEPENDS ${SWUPDATE_DIR}/*_test.cpp)
if(SWUPDATE_TESTS)
  add_executable(softwareupdate_tests ${SWUPDATE_TESTS})
  target_link_libraries(softwareupdate_tests PRIVATE softwareupdate_core GTest::gtest_main)
  gtest_discover_tests(softwareupdate_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endif()

# The module's tool table maps the update tool to this path.
install(TARGETS softwareupdate RUNTIME DESTINATION /usr/libexec/hubwarden)
