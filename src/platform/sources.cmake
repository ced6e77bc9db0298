target_sources(corvane PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/Device.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FeatureFlags.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Localization.cpp
  ${CMAKE_CURRENT_LIST_DIR}/Log.cpp)
