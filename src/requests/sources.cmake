target_sources(corvane PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/ManagedAppDeclaration.cpp
  ${CMAKE_CURRENT_LIST_DIR}/StoreAppIdentifier.cpp
  ${CMAKE_CURRENT_LIST_DIR}/VPPInstallRequest.cpp)
