target_sources(corvane PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/LogKey.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MessageRegistration.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MessageSending.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Wiring.cpp
  ${CMAKE_CURRENT_LIST_DIR}/TetherClient.cpp
  ${CMAKE_CURRENT_LIST_DIR}/TetherClientMessage.cpp)
