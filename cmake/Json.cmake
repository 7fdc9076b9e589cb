# nlohmann-json is header-only. As for Asio, the cross build gets a folder of its own holding a link to its
# headers, since the mingw compiler does not search /usr/include.
add_library(json INTERFACE)
if(CMAKE_CROSSCOMPILING AND WIN32)
  set(json_links ${CMAKE_BINARY_DIR}/json-include)
  file(MAKE_DIRECTORY ${json_links})
  file(CREATE_LINK /usr/include/nlohmann ${json_links}/nlohmann SYMBOLIC)
  target_include_directories(json SYSTEM INTERFACE ${json_links})
else()
  find_package(nlohmann_json 3.10 REQUIRED)
  target_link_libraries(json INTERFACE nlohmann_json::nlohmann_json)
endif()
