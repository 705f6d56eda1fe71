# The libraries that products link: Orvex::Infra (libOrvexInfra.so) and Orvex::Reticor (libReticor.so).

# What follows the output are the objects.
function(reticor_shared_library name alias output)
  add_library(${name} SHARED ${ARGN})
  add_library(Orvex::${alias} ALIAS ${name})
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:reticor_options> PUBLIC Threads::Threads)
  set(map ${PROJECT_SOURCE_DIR}/cmake/${output}.map)
  set_target_properties(${name} PROPERTIES
    EXPORT_NAME ${alias}
    OUTPUT_NAME ${output}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}
    LINKER_LANGUAGE CXX
    INSTALL_RPATH $ORIGIN
    LINK_DEPENDS ${map})
  # What a source uses must be linked. Sanitizer builds are exempt: there the program brings the run time.
  target_link_options(${name} PRIVATE -Wl,-z,relro,-z,now -Wl,--version-script=${map})
  if(NOT RETICOR_SANITIZE)
    target_link_options(${name} PRIVATE -Wl,-z,defs)
  endif()
endfunction()

reticor_shared_library(orvex_infra Infra OrvexInfra $<TARGET_OBJECTS:infra_objects>)
target_include_directories(orvex_infra PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/foundation/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
if(RETICOR_HELD_LOCKS)
  target_compile_definitions(orvex_infra PUBLIC RETICOR_HELD_LOCKS=1)
  target_include_directories(orvex_infra PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/foundation/inner>)
endif()

reticor_shared_library(reticor Reticor Reticor ${RETICOR_OBJECTS})
target_link_libraries(reticor PUBLIC orvex_infra)
target_include_directories(reticor PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
