target_sources(corvane PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/Coding.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CodingError.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CorvaneError.cpp)
