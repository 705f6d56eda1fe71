# `cmake --build build/release --target docs` writes the site of reference and pages to build/docs/html.
if(RETICOR_IS_TOP)
  add_custom_target(docs COMMAND script/docs WORKING_DIRECTORY ${PROJECT_SOURCE_DIR} VERBATIM)
endif()
