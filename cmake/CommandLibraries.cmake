# CLI11::CLI11 and nlohmann_json::nlohmann_json. The system's packages hold headers alone, which serve
# every target; but they lie among headers of the system's own, which must not be seen by a compiler for
# another one. There each library gets a folder with a link to its headers and nothing else.
if(CMAKE_CROSSCOMPILING)
  function(dak_link_headers target folder header)
    if(TARGET ${target})
      return()
    endif()
    find_path(DAK_HEADERS_${folder} ${folder}/${header} PATHS /usr/include /usr/local/include
      NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH REQUIRED)
    set(links ${CMAKE_BINARY_DIR}/headers/${folder})
    file(MAKE_DIRECTORY ${links})
    file(CREATE_LINK ${DAK_HEADERS_${folder}}/${folder} ${links}/${folder} SYMBOLIC)
    add_library(${target} INTERFACE IMPORTED GLOBAL)
    target_include_directories(${target} SYSTEM INTERFACE ${links})
  endfunction()
  dak_link_headers(CLI11::CLI11 CLI App.hpp)
  dak_link_headers(nlohmann_json::nlohmann_json nlohmann json.hpp)
else()
  find_package(CLI11 REQUIRED)
  find_package(nlohmann_json REQUIRED)
endif()
