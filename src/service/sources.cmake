target_sources(corvane PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/ServiceConnection.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RequestOperations.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ManagedAppLibrary.cpp)
