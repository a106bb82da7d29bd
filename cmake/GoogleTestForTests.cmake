# GTest::gtest and GTest::gtest_main: the system's own library or, for a target that the system has
# none for, built from the sources that Debian's package brings along (googletest).
if(CMAKE_CROSSCOMPILING)
  set(DAK_GOOGLETEST_SOURCE /usr/src/googletest CACHE PATH "GoogleTest's sources")
  set(INSTALL_GTEST OFF CACHE BOOL "" FORCE)
  set(BUILD_GMOCK OFF CACHE BOOL "" FORCE)
  add_subdirectory(${DAK_GOOGLETEST_SOURCE} ${CMAKE_BINARY_DIR}/googletest EXCLUDE_FROM_ALL SYSTEM)
else()
  find_package(GTest REQUIRED GLOBAL)
endif()
