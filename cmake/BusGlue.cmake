# C++ glue of the D-Bus interfaces, made from interfaces/*.xml while building.
#
#   tallow_bus_glue(TARGET INTERFACE...)
#
# makes INTERFACE_adaptor.h and INTERFACE_proxy.h for each before TARGET is compiled. They are included
# as "bus/INTERFACE_adaptor.h" with ${CMAKE_BINARY_DIR}/generated on the path.
# Run as a script, this file generates the glue of one interface.

if(CMAKE_SCRIPT_MODE_FILE)
  # The generator warns of every annotation that is not its own.
  file(READ ${XML} text)
  string(REGEX REPLACE "[ \t]*<annotation name=\"org\\.gtk\\.GDBus\\.DocString\"[^>]*/>\n" "" text "${text}")
  file(WRITE ${OUT}/${NAME}.xml "${text}")
  execute_process(COMMAND ${GENERATOR} ${OUT}/${NAME}.xml --adaptor=${OUT}/${NAME}_adaptor.h
      --proxy=${OUT}/${NAME}_proxy.h
    OUTPUT_QUIET COMMAND_ERROR_IS_FATAL ANY)
  # Its own types for values, dictionaries and errors keep one bus message per value; those of
  # platform/XPC go straight between a message and the system's values.
  foreach(half adaptor proxy)
    set(header ${OUT}/${NAME}_${half}.h)
    file(READ ${header} text)
    string(REPLACE "std::map<std::string, sdbus::Variant>" "tallow::WireDictionary" text "${text}")
    string(REPLACE "sdbus::Struct<std::string, int64_t, tallow::WireDictionary>" "tallow::WireError"
      text "${text}")
    string(REPLACE "sdbus::Struct<std::vector<uint8_t>>" "tallow::WireSecret" text "${text}")
    string(REPLACE "sdbus::Variant" "tallow::WireValue" text "${text}")
    string(REPLACE "std::map<std::string, std::string>" "tallow::WireHeaders" text "${text}")
    string(REPLACE "#include <sdbus-c++/sdbus-c++.h>\n" "#include \"platform/XPC/WireTypes.h\"\n"
      text "${text}")
    # The generator spells the output path into the include guard.
    string(REGEX REPLACE "#(ifndef|define) __sdbuscpp_[^\n]*\n" "" text "${text}")
    string(REGEX REPLACE "#endif[ \t\n]*$" "" text "${text}")
    file(WRITE ${header} "#pragma once\n${text}")
  endforeach()
  return()
endif()

find_program(SDBUS_XML2CPP sdbus-c++-xml2cpp REQUIRED)

function(tallow_bus_glue target)
  set(folder ${CMAKE_BINARY_DIR}/generated/bus)
  file(MAKE_DIRECTORY ${folder})
  set(headers)
  foreach(name ${ARGN})
    set(xml ${CMAKE_SOURCE_DIR}/interfaces/${name}.xml)
    add_custom_command(
      OUTPUT ${folder}/${name}_adaptor.h ${folder}/${name}_proxy.h
      COMMAND ${CMAKE_COMMAND} -DXML=${xml} -DNAME=${name} -DOUT=${folder}
        -DGENERATOR=${SDBUS_XML2CPP} -P ${CMAKE_SOURCE_DIR}/cmake/BusGlue.cmake
      DEPENDS ${xml} ${CMAKE_SOURCE_DIR}/cmake/BusGlue.cmake
      COMMENT "Generating the bus glue of ${name}" VERBATIM)
    list(APPEND headers ${folder}/${name}_adaptor.h ${folder}/${name}_proxy.h)
  endforeach()
  add_custom_target(${target}_bus_glue DEPENDS ${headers})
  add_dependencies(${target} ${target}_bus_glue)
endfunction()
