set(CMAKE_CXX_STANDARD 23)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Release)
endif()

# Assertions stay on in releases: stopping is better than going on with somebody's files in an impossible state.
set(CMAKE_CXX_FLAGS_RELEASE "-O2")
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU)
  # g++ 12 takes the inactive member of std::expected for an uninitialised value when it optimises.
  string(APPEND CMAKE_CXX_FLAGS_RELEASE " -Wno-maybe-uninitialized")
endif()

set(VONDLE_SANITIZE "" CACHE STRING "Sanitizers to build with: empty, address,undefined or thread")

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual -Wimplicit-fallthrough
                    -Werror -fno-omit-frame-pointer -g1)
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  add_compile_options(-Wthread-safety)
endif()
if(VONDLE_SANITIZE)
  add_compile_options(-fsanitize=${VONDLE_SANITIZE} -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${VONDLE_SANITIZE})
  if(VONDLE_SANITIZE MATCHES thread AND CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    add_compile_options(-Wno-tsan)
  endif()
endif()
