# Standalone Asio is header-only. The mingw compiler does not search /usr/include (and must not: glibc
# headers live there), so the cross build gets a folder of its own holding links to the Asio headers.
add_library(asio INTERFACE)
if(CMAKE_CROSSCOMPILING AND WIN32)
  set(asio_links ${CMAKE_BINARY_DIR}/asio-include)
  file(MAKE_DIRECTORY ${asio_links})
  file(CREATE_LINK /usr/include/asio.hpp ${asio_links}/asio.hpp SYMBOLIC)
  file(CREATE_LINK /usr/include/asio ${asio_links}/asio SYMBOLIC)
  target_include_directories(asio SYSTEM INTERFACE ${asio_links})
  target_compile_definitions(asio INTERFACE _WIN32_WINNT=0x0601 WIN32_LEAN_AND_MEAN NOMINMAX)
  target_link_libraries(asio INTERFACE ws2_32 mswsock iphlpapi)
else()
  find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
  target_include_directories(asio SYSTEM INTERFACE ${ASIO_INCLUDE_DIR})
  find_package(Threads REQUIRED)
  target_link_libraries(asio INTERFACE Threads::Threads)
endif()
# Asio picks its handler allocator by whether libstdc++ was seen before its own headers; pin it, so every
# translation unit allocates and frees the same way (ASan reports the mix as alloc-dealloc-mismatch).
target_compile_definitions(asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED ASIO_DISABLE_STD_ALIGNED_ALLOC)
