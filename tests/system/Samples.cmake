# The C++ blocks of the documents become sources: those of docs/guide.md are included by GuideTest.cpp, those of
# docs/media.md by MediaGuideTest.cpp, the one of README.md is the program readme_program. Included by
# tests/CMakeLists.txt.
set(samples_dir ${PROJECT_BINARY_DIR}/samples)
file(MAKE_DIRECTORY ${samples_dir})

function(reticor_samples document output)
  add_custom_command(
    OUTPUT ${samples_dir}/${output}
    COMMAND awk -v name=${document} -f ${CMAKE_CURRENT_SOURCE_DIR}/system/extract_samples.awk
      ${PROJECT_SOURCE_DIR}/${document} > ${samples_dir}/${output}
    DEPENDS ${PROJECT_SOURCE_DIR}/${document} ${CMAKE_CURRENT_SOURCE_DIR}/system/extract_samples.awk
    VERBATIM)
endfunction()

reticor_samples(docs/guide.md guide.inc)
reticor_samples(docs/media.md media.inc)
add_custom_target(guide_samples DEPENDS ${samples_dir}/guide.inc ${samples_dir}/media.inc)
add_dependencies(tests_system guide_samples)
target_include_directories(tests_system PRIVATE ${samples_dir})

reticor_samples(README.md readme_program.cpp)
add_executable(readme_program ${samples_dir}/readme_program.cpp)
reticor_program(readme_program)
target_link_libraries(readme_program PRIVATE Orvex::Reticor)
set_target_properties(readme_program PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${samples_dir})
add_dependencies(tests_system readme_program)
