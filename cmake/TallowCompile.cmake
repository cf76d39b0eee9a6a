# How every target of the project is compiled: tallow_target(NAME) applies it.

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

function(tallow_target name)
  target_include_directories(${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>)
  target_compile_options(${name} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor
    -Wold-style-cast -Woverloaded-virtual -Wunused -Wcast-align -Wnull-dereference
    -Werror -ffile-prefix-map=${CMAKE_SOURCE_DIR}/=)
  if(TALLOW_SANITIZE)
    target_compile_options(${name} PRIVATE -fsanitize=${TALLOW_SANITIZE} -fno-omit-frame-pointer
      -fno-sanitize-recover=all)
    target_link_options(${name} PRIVATE -fsanitize=${TALLOW_SANITIZE})
  endif()
endfunction()
