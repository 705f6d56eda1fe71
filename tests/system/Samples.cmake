# The C++ blocks of the documents become sources: those of docs/guide.md are included by GuideTest.cpp, those of
# docs/media.md by MediaGuideTest.cpp, the one of README.md is the program readme_program, those of docs/coming-from.md
# are the program coming_from_program, those of docs/first-day.md are first_day_program. Included by tests/CMakeLists.txt.
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
# Samples take the names that suit them.
set_source_files_properties(system/GuideTest.cpp system/MediaGuideTest.cpp PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)

foreach(page README.md:readme_program docs/coming-from.md:coming_from_program docs/first-day.md:first_day_program)
  string(REPLACE ":" ";" page ${page})
  list(GET page 0 document)
  list(GET page 1 program)
  reticor_samples(${document} ${program}.cpp)
  add_executable(${program} ${samples_dir}/${program}.cpp)
  reticor_program(${program})
  target_link_libraries(${program} PRIVATE Orvex::Reticor)
  set_target_properties(${program} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${samples_dir})
  add_dependencies(tests_system ${program})
endforeach()
