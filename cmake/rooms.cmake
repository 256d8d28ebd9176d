# One target a room. `add_room(NAME KIND SOURCES ... LINK ... PRIVATE_LINK ...)`.
# What is used on both sides of dlopen is SHARED, so that the process has one application object,
# one registry and one logger.

set(METRIX_WARNINGS "" CACHE STRING "Warning flags of the project's own code")
set(METRIX_SANITIZE "" CACHE STRING "Value of -fsanitize, empty for none")

add_library(metrixFlags INTERFACE)
target_include_directories(metrixFlags INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(metrixFlags INTERFACE ${METRIX_WARNINGS})
# One width for file offsets and times on every machine.
target_compile_definitions(metrixFlags INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
if(METRIX_SANITIZE)
   target_compile_options(metrixFlags INTERFACE
      -fsanitize=${METRIX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
   target_link_options(metrixFlags INTERFACE -fsanitize=${METRIX_SANITIZE})
endif()

function(add_room name kind)
   cmake_parse_arguments(ROOM "" "" "SOURCES;LINK;PRIVATE_LINK" ${ARGN})
   if(kind STREQUAL "INTERFACE")
      add_library(${name} INTERFACE)
      target_link_libraries(${name} INTERFACE metrixFlags ${ROOM_LINK})
      return()
   endif()
   add_library(${name} ${kind} ${ROOM_SOURCES})
   target_link_libraries(${name} PUBLIC metrixFlags ${ROOM_LINK} PRIVATE ${ROOM_PRIVATE_LINK})
endfunction()

execute_process(
   COMMAND ${CMAKE_COMMAND} -D SOURCE_DIR=${PROJECT_SOURCE_DIR}
           -P ${PROJECT_SOURCE_DIR}/cmake/checkLayers.cmake
   COMMAND_ERROR_IS_FATAL ANY)
