# Compiler settings shared by every target of the project.

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

add_library(corvane_options INTERFACE)
target_compile_options(corvane_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
  -Woverloaded-virtual -Wconversion -Wsign-conversion -Wnull-dereference -Wimplicit-fallthrough
  $<$<BOOL:${CORVANE_WARNINGS_AS_ERRORS}>:-Werror>)
# Boost.Asio's and Boost.JSON's own headers trip a few of these; they are system headers here.

if(CORVANE_SANITIZE)
  string(REPLACE ";" "," _corvane_san "${CORVANE_SANITIZE}")
  add_compile_options(-fsanitize=${_corvane_san} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${_corvane_san})
  if(_corvane_san MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
