# Compiler settings that every target of this project shares, and the one way to declare a library.

add_library(kvo_options INTERFACE)
target_compile_options(kvo_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
                                             -Woverloaded-virtual -Wno-missing-field-initializers)
target_compile_definitions(kvo_options INTERFACE QT_NO_KEYWORDS QT_NO_FOREACH)
if(KVO_WARNINGS_AS_ERRORS)
  target_compile_options(kvo_options INTERFACE -Werror)
endif()
if(KVO_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND KVO_SANITIZE)
  # These compare type information, of which each library has its own where it is hidden.
  add_compile_options(-fno-sanitize=vptr,function)
endif()
# Containers have another layout then, and QMap has one of them inside. So what hands containers to libraries that are
# built without it stays out: toolkits, VTK, Python, and the sources that kvo_plain_stdlib names.
if(KVO_STDLIB_DEBUG)
  add_compile_definitions(_GLIBCXX_DEBUG _GLIBCXX_DEBUG_PEDANTIC)
  foreach(part WINDOWS VTK PYTHON)
    if(KVO_BUILD_${part} AND NOT KVO_BUILD_${part} STREQUAL "AUTO")
      message(FATAL_ERROR "KVO_STDLIB_DEBUG and KVO_BUILD_${part} exclude each other: cmake --preset stdlib")
    endif()
    set(KVO_BUILD_${part} OFF)
  endforeach()
endif()
# Sources that share containers with such a library. What needs no other layout is checked in them too.
function(kvo_plain_stdlib)
  if(KVO_STDLIB_DEBUG)
    set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS
      -U_GLIBCXX_DEBUG -U_GLIBCXX_DEBUG_PEDANTIC -D_GLIBCXX_ASSERTIONS)
    set_property(SOURCE ${ARGN} PROPERTY SKIP_PRECOMPILE_HEADERS ON)
  endif()
endfunction()
if(KVO_BUILD_FUZZERS)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "KVO_BUILD_FUZZERS takes clang: cmake --preset fuzz")
  endif()
  # A number of a file that no integer holds is what they are to find.
  add_compile_options(-fsanitize=fuzzer-no-link,float-cast-overflow -fno-sanitize-recover=float-cast-overflow)
endif()

# kvo_library(Core HEADERS … SOURCES … LINK … PRIVATE_LINK …)
# makes the library KvoCore with the alias Kvo::Core and its install rules; shared, or static where BUILD_SHARED_LIBS is
# off. EXPORT names another file of targets than KvoTargets, for libraries that need what others do not.
function(kvo_library name)
  cmake_parse_arguments(ARG "" "EXPORT" "HEADERS;SOURCES;LINK;PRIVATE_LINK" ${ARGN})
  set(target Kvo${name})
  if(NOT ARG_EXPORT)
    set(ARG_EXPORT KvoTargets)
  endif()
  add_library(${target} ${ARG_SOURCES} ${ARG_HEADERS})
  add_library(Kvo::${name} ALIAS ${target})
  target_link_libraries(${target} PUBLIC ${ARG_LINK} PRIVATE ${ARG_PRIVATE_LINK} $<BUILD_INTERFACE:kvo_options>)
  target_compile_features(${target} PUBLIC cxx_std_20)
  # What a number loses on the way into another type is said in the text. Clang means signs too by it.
  target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wconversion>)
  set_target_properties(${target} PROPERTIES
    EXPORT_NAME ${name}
    POSITION_INDEPENDENT_CODE ON
    VERSION ${KVO_SOVERSION}.${PROJECT_VERSION}
    SOVERSION ${KVO_SOVERSION}
    INSTALL_RPATH "\$ORIGIN")
  # What is exported is of this namespace, and carries the name of this interface: a program that was linked with
  # another one is told so at its start.
  if(UNIX AND NOT APPLE)
    set(script ${CMAKE_CURRENT_BINARY_DIR}/${target}.version)
    file(CONFIGURE OUTPUT ${script} @ONLY CONTENT "@target@_@KVO_SOVERSION@ {
  global:
    extern \"C++\" { *Brevane::Kvo*; };
  local:
    *;
};
")
    target_link_options(${target} PRIVATE -Wl,--version-script=${script})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${script})
  endif()
  install(TARGETS ${target} EXPORT ${ARG_EXPORT}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/kvo)
endfunction()
