# Compiler settings shared by every target, and the one function that declares a layer.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# A 32-bit target's time_t would end in 2038 and its stat would fail on large file systems.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

find_package(Threads REQUIRED)
find_package(cJSON REQUIRED)

add_library(valtor_options INTERFACE)
target_compile_options(valtor_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wold-style-cast -Wnon-virtual-dtor
  $<$<BOOL:${VALTOR_WERROR}>:-Werror>
  # g++ 12 sees overlapping copies in std::string's operator+ where there are none.
  $<$<AND:$<CXX_COMPILER_ID:GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety -Werror=thread-safety>)
target_compile_definitions(valtor_options INTERFACE _GNU_SOURCE
  $<$<CONFIG:Release>:_FORTIFY_SOURCE=2>)
target_compile_options(valtor_options INTERFACE $<$<CONFIG:Release>:-fstack-protector-strong>)
target_link_options(valtor_options INTERFACE $<$<CONFIG:Release>:LINKER:-z,relro,-z,now>)

# What is shipped is kept small: docs/footprint.md.
target_compile_options(valtor_options INTERFACE
  $<$<CONFIG:Release>:-ffunction-sections$<SEMICOLON>-fdata-sections>)
target_link_options(valtor_options INTERFACE $<$<CONFIG:Release>:LINKER:--gc-sections>)
if(CMAKE_BUILD_TYPE STREQUAL "Release")
  include(CheckIPOSupported)
  check_ipo_supported(RESULT CMAKE_INTERPROCEDURAL_OPTIMIZATION OUTPUT ignored LANGUAGES CXX)
endif()
target_include_directories(valtor_options INTERFACE "${CMAKE_SOURCE_DIR}/src")
target_link_libraries(valtor_options INTERFACE Threads::Threads)

if(VALTOR_SANITIZE)
  add_compile_options(-fsanitize=${VALTOR_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VALTOR_SANITIZE})
  # With the sanitizers' code between, gcc 12 sees uninitialized values in <regex> and warns about
  # fences in the standard library.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(valtor_options INTERFACE -Wno-maybe-uninitialized)
    if(VALTOR_SANITIZE STREQUAL "thread")
      target_compile_options(valtor_options INTERFACE -Wno-tsan)
    endif()
  endif()
endif()

# valtor_layer(<name> DEPENDS <lower layers and libraries> SOURCES <files>)
# One static library per layer. What a layer may include is what it links, nothing else.
function(valtor_layer name)
  cmake_parse_arguments(ARG "" "" "DEPENDS;SOURCES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC valtor_options ${ARG_DEPENDS})
endfunction()
