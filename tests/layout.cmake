# The tree's own shape: no two files of the agent or its library call each
# other in a circle (other than the ones docs/architecture.md names), and
# every test has a name a person can read.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_FOUND)
  add_test(NAME Layout.NoCirclesBetweenFiles
           COMMAND ${Python3_EXECUTABLE} ${PROJECT_SOURCE_DIR}/scripts/file_cycles.py
                   ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR}/util ${CMAKE_BINARY_DIR}/ealib)
endif()
add_test(NAME Layout.TestNamesAreReadable
         COMMAND sh -c "! ${CMAKE_CTEST_COMMAND} -N | grep 'byte object'"
         WORKING_DIRECTORY ${CMAKE_BINARY_DIR})
