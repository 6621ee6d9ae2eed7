# Warnings as errors for our own code only: third-party headers come in as system includes.
add_library(pcp_warnings INTERFACE)
target_compile_options(pcp_warnings INTERFACE -Wall -Wextra -Wpedantic -Werror)

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

if(PCP_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer -O1)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(PCP_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -O1)
  add_link_options(-fsanitize=thread)
elseif(NOT PCP_SANITIZE STREQUAL "")
  message(FATAL_ERROR "PCP_SANITIZE must be empty, 'address' or 'thread', not '${PCP_SANITIZE}'")
endif()
