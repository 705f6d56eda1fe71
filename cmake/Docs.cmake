# `cmake --build build/release --target docs` writes the reference of the public headers to build/.../docs/html.
find_program(DOXYGEN_EXECUTABLE doxygen)
if(DOXYGEN_EXECUTABLE AND RETICOR_IS_TOP)
  add_custom_target(docs
    COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/docs
    COMMAND ${CMAKE_COMMAND} -E env DOXYGEN_OUTPUT=${PROJECT_BINARY_DIR}/docs
      PROJECT_NUMBER=${PROJECT_VERSION} ${DOXYGEN_EXECUTABLE} docs/Doxyfile
    WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
    VERBATIM)
endif()
