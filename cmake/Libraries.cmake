# The libraries that products link: Orvex::Infra (libOrvexInfra) and Orvex::Reticor (libReticor). They are shared ones,
# unless BUILD_SHARED_LIBS is set and says no.
set(RETICOR_SHARED ON)
if(DEFINED BUILD_SHARED_LIBS AND NOT BUILD_SHARED_LIBS)
  set(RETICOR_SHARED OFF)
endif()

# What follows the output are the objects.
function(reticor_shared_library name output)
  add_library(${name} SHARED ${ARGN})
  set(map ${PROJECT_SOURCE_DIR}/cmake/${output}.map)
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    INSTALL_RPATH $ORIGIN
    LINK_DEPENDS ${map})
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:reticor_options>)
  # What a source uses must be linked. Sanitizer builds are exempt: there the program brings the run time.
  target_link_options(${name} PRIVATE -Wl,-z,relro,-z,now -Wl,--version-script=${map})
  if(NOT RETICOR_SANITIZE)
    target_link_options(${name} PRIVATE -Wl,-z,defs)
  endif()
endfunction()

# One object in the archive: of single ones a linker takes only those that somebody names, and nobody names the ones
# that enter console commands.
function(reticor_static_library name output)
  set(whole ${PROJECT_BINARY_DIR}/generated/${output}${CMAKE_CXX_OUTPUT_EXTENSION})
  file(MAKE_DIRECTORY ${PROJECT_BINARY_DIR}/generated)
  add_custom_command(OUTPUT ${whole}
    COMMAND ${CMAKE_CXX_COMPILER} -r -nostdlib -o ${whole} ${ARGN}
    DEPENDS ${ARGN}
    COMMAND_EXPAND_LISTS VERBATIM)
  add_library(${name} STATIC ${whole})
  set_source_files_properties(${whole} PROPERTIES EXTERNAL_OBJECT ON GENERATED ON)
endfunction()

function(reticor_library name alias output)
  if(RETICOR_SHARED)
    reticor_shared_library(${name} ${output} ${ARGN})
  else()
    reticor_static_library(${name} ${output} ${ARGN})
  endif()
  add_library(Orvex::${alias} ALIAS ${name})
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_link_libraries(${name} PUBLIC Threads::Threads ${CMAKE_DL_LIBS})  # the latter: C libraries before 2.34
  set_target_properties(${name} PROPERTIES EXPORT_NAME ${alias} OUTPUT_NAME ${output} LINKER_LANGUAGE CXX)
endfunction()

reticor_library(orvex_infra Infra OrvexInfra $<TARGET_OBJECTS:infra_objects>)
target_include_directories(orvex_infra PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/foundation/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/reticor>)
if(RETICOR_HELD_LOCKS)
  target_compile_definitions(orvex_infra PUBLIC RETICOR_HELD_LOCKS=1)
  target_include_directories(orvex_infra PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/foundation/inner>)
endif()

reticor_library(reticor Reticor Reticor ${RETICOR_OBJECTS})
target_link_libraries(reticor PUBLIC orvex_infra)
target_include_directories(reticor PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/reticor>)
