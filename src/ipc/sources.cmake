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
  ${CMAKE_CURRENT_LIST_DIR}/detail/Channel.cpp)
# Under -fsanitize=thread GCC warns about Asio's atomic_thread_fence; the code is Asio's, not
# ours, so only the translation units that include it opt out.
set_source_files_properties(
  ${CMAKE_CURRENT_LIST_DIR}/Connection.cpp ${CMAKE_CURRENT_LIST_DIR}/Listener.cpp
  ${CMAKE_CURRENT_LIST_DIR}/ExportedObject.cpp ${CMAKE_CURRENT_LIST_DIR}/RemoteProxy.cpp
  ${CMAKE_CURRENT_LIST_DIR}/detail/Runtime.cpp ${CMAKE_CURRENT_LIST_DIR}/detail/Channel.cpp
  TARGET_DIRECTORY corvane PROPERTIES COMPILE_OPTIONS "$<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>")
