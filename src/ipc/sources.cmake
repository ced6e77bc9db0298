target_sources(corvane PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/Frame.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FrameDecoder.cpp
  ${CMAKE_CURRENT_LIST_DIR}/InterfaceDescription.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ConnectionError.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ExportedObject.cpp
  ${CMAKE_CURRENT_LIST_DIR}/RemoteProxy.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Connection.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Listener.cpp
  ${CMAKE_CURRENT_LIST_DIR}/detail/Runtime.cpp
  ${CMAKE_CURRENT_LIST_DIR}/detail/Session.cpp
  ${CMAKE_CURRENT_LIST_DIR}/detail/Channel.cpp)
