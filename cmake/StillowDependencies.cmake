# Every library here is a Debian package, and on macOS one of Homebrew's; docs/dependencies.md gives the reason for each.

if(CMAKE_SYSTEM_NAME STREQUAL "Darwin")
  # The extension runs where no library of another maker is loaded.
  set(OPENSSL_USE_STATIC_LIBS ON)
  find_package(CLI11 REQUIRED)
endif()
find_package(Threads REQUIRED)
find_package(Boost 1.81 REQUIRED)
find_package(OpenSSL 3 REQUIRED)

# Header-only parts of Boost. Asio's own code is compiled once, in StillowConcurrency.
add_library(stillow_boost INTERFACE)
target_include_directories(stillow_boost SYSTEM INTERFACE ${Boost_INCLUDE_DIRS})
target_compile_definitions(stillow_boost INTERFACE
  BOOST_ASIO_SEPARATE_COMPILATION BOOST_ASIO_NO_DEPRECATED
  BOOST_ALL_NO_LIB)
target_link_libraries(stillow_boost INTERFACE Threads::Threads)

if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
  find_package(PkgConfig REQUIRED)
  find_package(ICU REQUIRED COMPONENTS uc i18n)
  find_package(CURL REQUIRED)
  find_package(spdlog REQUIRED)
  find_package(CLI11 REQUIRED)
  pkg_check_modules(LIBMNL REQUIRED IMPORTED_TARGET libmnl)
  pkg_check_modules(LIBSYSTEMD REQUIRED IMPORTED_TARGET libsystemd)
endif()

if(STILLOW_BUILD_TESTS)
  find_package(GTest REQUIRED)
  include(GoogleTest)
endif()
