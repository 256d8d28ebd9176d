# Reads every include line of the rooms and fails on one that points up or sideways.
# Run as a script: cmake -D SOURCE_DIR=... -P checkLayers.cmake
cmake_minimum_required(VERSION 3.25)
include(${CMAKE_CURRENT_LIST_DIR}/layers.cmake)

set(violations "")
set(linesSeen 0)
foreach(room IN LISTS METRIX_ROOMS)
   file(GLOB files RELATIVE ${SOURCE_DIR} ${SOURCE_DIR}/${room}/*.h ${SOURCE_DIR}/${room}/*.cpp)
   foreach(source IN LISTS files)
      file(STRINGS ${SOURCE_DIR}/${source} lines REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
      foreach(line IN LISTS lines)
         math(EXPR linesSeen "${linesSeen} + 1")
         string(REGEX REPLACE ".*\"(.*)/[^/]*\".*" "\\1" seen "${line}")
         if(NOT seen STREQUAL room AND NOT seen IN_LIST SEES_${room}
            AND NOT seen IN_LIST SEES_${source})
            list(APPEND violations "${source}: ${line} (${room} does not see ${seen})")
         endif()
      endforeach()
   endforeach()
endforeach()

if(violations)
   list(JOIN violations "\n  " text)
   message(FATAL_ERROR "Include lines against the layer table (cmake/layers.cmake):\n  ${text}")
endif()
if(linesSeen EQUAL 0)
   message(FATAL_ERROR "No include line found below ${SOURCE_DIR}: the layer check saw nothing")
endif()
