target_sources(corvane PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/AppState.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ManagedApp.cpp)
