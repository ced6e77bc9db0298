target_sources(corvane PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/Coding.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CodingError.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CorvaneError.cpp
  ${CMAKE_CURRENT_LIST_DIR}/InformationStorage.cpp
  ${CMAKE_CURRENT_LIST_DIR}/LanguageIdentifier.cpp
  ${CMAKE_CURRENT_LIST_DIR}/TextReader.cpp
  ${CMAKE_CURRENT_LIST_DIR}/WireTypes.cpp)
