# What media_relay needs beyond its sources: libjpeg-turbo for the test picture, OpenSSL for sums of passwords, and
# page.html inside the program.
# RTSP's requests are those of the smaller example.
target_sources(media_relay PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/rtsp_options/Answer.cpp
  ${CMAKE_CURRENT_SOURCE_DIR}/rtsp_options/Request.cpp)
target_link_libraries(media_relay PRIVATE PkgConfig::turbojpeg PkgConfig::libcrypto nlohmann_json::nlohmann_json)

set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/http/page.html)
file(READ ${CMAKE_CURRENT_LIST_DIR}/http/page.html PAGE)
configure_file(${CMAKE_CURRENT_LIST_DIR}/http/Page.cpp.in ${PROJECT_BINARY_DIR}/generated/media_relay/http/Page.cpp @ONLY)
target_sources(media_relay PRIVATE ${PROJECT_BINARY_DIR}/generated/media_relay/http/Page.cpp)
set_source_files_properties(${PROJECT_BINARY_DIR}/generated/media_relay/http/Page.cpp PROPERTIES SKIP_PRECOMPILE_HEADERS ON)
