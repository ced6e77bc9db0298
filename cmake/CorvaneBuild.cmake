# Compiler settings shared by every target of the project.

find_program(CCACHE_PROGRAM ccache)
if(CCACHE_PROGRAM)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE_PROGRAM})
endif()

add_library(corvane_options INTERFACE)
target_compile_options(corvane_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-align
  -Woverloaded-virtual -Wconversion -Wsign-conversion -Wimplicit-fallthrough
  $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
  $<$<BOOL:${CORVANE_WARNINGS_AS_ERRORS}>:-Werror>)
# -Wnull-dereference and g++'s -Wmaybe-uninitialized are left out: with g++ 12 at -O1 and above
# they report paths inside libstdc++ and Boost.Asio that cannot be taken (moved-from
# std::optional<std::vector>, streambuf iterators). -Wuninitialized stays on.

if(CORVANE_SANITIZE)
  string(REPLACE ";" "," _corvane_san "${CORVANE_SANITIZE}")
  add_compile_options(-fsanitize=${_corvane_san} -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=${_corvane_san})
  if(_corvane_san MATCHES "thread")
    # Asio fences the handlers it runs with atomic_thread_fence, which ThreadSanitizer does not
    # model; its strands hand work over under a mutex, which it does.
    add_compile_definitions(BOOST_ASIO_DISABLE_FENCED_BLOCK)
  endif()
  if(_corvane_san MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
