# One set of objects, linked twice: into the shared library with its narrow interface,
# and into a static one through which the unit tests reach everything.
file(GLOB_RECURSE KELVANE_SOURCES CONFIGURE_DEPENDS
  support/*.cpp foundation/*.cpp filestore/*.cpp archive/*.cpp manifest/*.cpp crypto/*.cpp
  container/*.cpp)

add_library(kelvane_objects OBJECT ${KELVANE_SOURCES})
target_include_directories(kelvane_objects PUBLIC
  ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
# Asio is used for synchronous descriptors only.
target_compile_definitions(kelvane_objects PUBLIC BOOST_ASIO_NO_DEPRECATED)
target_link_libraries(kelvane_objects
  PUBLIC CoreFoundation::CoreFoundation OpenSSL::Crypto Boost::filesystem Boost::system
         SQLiteCpp SQLite::SQLite3 PkgConfig::MINIZIP PkgConfig::LIBDEFLATE ZLIB::ZLIB Threads::Threads
  PRIVATE kelvane_warnings)

# Parsing these again for each source took half of the time of building. A build with
# CMAKE_DISABLE_PRECOMPILE_HEADERS finds sources that lean on them instead of including what they need.
target_precompile_headers(kelvane_objects PRIVATE <algorithm> <array> <cstdint> <functional> <map>
  <memory> <mutex> <optional> <span> <stdexcept> <string> <string_view> <unordered_map> <vector>
  <boost/filesystem/operations.hpp> <boost/system/system_error.hpp>
  <CoreFoundation/CoreFoundation.h>)

add_library(kelvane_internal STATIC $<TARGET_OBJECTS:kelvane_objects>)
target_link_libraries(kelvane_internal PUBLIC
  CoreFoundation::CoreFoundation OpenSSL::Crypto Boost::filesystem Boost::system
  SQLiteCpp SQLite::SQLite3 PkgConfig::MINIZIP PkgConfig::LIBDEFLATE ZLIB::ZLIB Threads::Threads)
target_include_directories(kelvane_internal PUBLIC
  ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_definitions(kelvane_internal PUBLIC BOOST_ASIO_NO_DEPRECATED)

add_library(Kelvane SHARED $<TARGET_OBJECTS:kelvane_objects>)
set_target_properties(Kelvane PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION 1)
target_link_libraries(Kelvane
  PUBLIC CoreFoundation::CoreFoundation Boost::filesystem
  PRIVATE OpenSSL::Crypto Boost::system SQLiteCpp SQLite::SQLite3 PkgConfig::MINIZIP PkgConfig::LIBDEFLATE ZLIB::ZLIB
          Threads::Threads)
target_include_directories(Kelvane PUBLIC
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}> $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}/kelvane>)
if(NOT APPLE)
  set(map ${PROJECT_SOURCE_DIR}/cmake/Kelvane.map)
  target_link_options(Kelvane PRIVATE
    LINKER:--version-script=${map} LINKER:--exclude-libs,ALL)
  set_target_properties(Kelvane PROPERTIES LINK_DEPENDS ${map})
endif()

install(TARGETS Kelvane)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvane)
install(DIRECTORY support/cf DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvane/support
  FILES_MATCHING PATTERN "*.hpp")
install(FILES support/zk/Path.hpp support/zk/IOSVersion.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kelvane/support/zk)
