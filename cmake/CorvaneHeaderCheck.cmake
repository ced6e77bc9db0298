# Every public header compiles on its own: one generated source per header under
# include/corvane, including only that header (twice, which also checks its include guard),
# compiled as an object library against the library's usage requirements. The libFuzzer build
# leaves it out: it compiles only what the fuzz targets need.
if(CORVANE_BUILD_FUZZ)
  set(_corvane_check_headers_default OFF)
else()
  set(_corvane_check_headers_default ON)
endif()
option(CORVANE_CHECK_HEADERS "Compile every public header on its own as part of the build"
       ${_corvane_check_headers_default})

if(CORVANE_CHECK_HEADERS)
  file(GLOB_RECURSE _corvane_public_headers CONFIGURE_DEPENDS
       RELATIVE ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/include/corvane/*.hpp)
  set(_corvane_header_check_sources)
  foreach(header IN LISTS _corvane_public_headers)
    string(REGEX REPLACE "[/.]" "_" _name "${header}")
    set(_source ${PROJECT_BINARY_DIR}/header-check/${_name}.cpp)
    # Written only when its text changes, so reconfiguring rebuilds nothing.
    file(CONFIGURE OUTPUT ${_source} CONTENT "#include <${header}>\n#include <${header}>\n" @ONLY)
    list(APPEND _corvane_header_check_sources ${_source})
  endforeach()
  # A removed header leaves no source behind.
  file(GLOB _corvane_header_check_stale ${PROJECT_BINARY_DIR}/header-check/*.cpp)
  list(REMOVE_ITEM _corvane_header_check_stale ${_corvane_header_check_sources})
  if(_corvane_header_check_stale)
    file(REMOVE ${_corvane_header_check_stale})
  endif()
  add_library(corvane_header_check OBJECT ${_corvane_header_check_sources})
  target_link_libraries(corvane_header_check PRIVATE corvane corvane_options)
  # Under -fsanitize=thread g++ warns about Boost.Asio's atomic_thread_fence.
  target_compile_options(corvane_header_check PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
endif()
