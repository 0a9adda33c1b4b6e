# add_macho_image(name SOURCE file ARCHITECTURE x86_64|arm64 [COMPILE options...] [LINK options...]): a Mach-O
# library for macOS, built from one C file that includes nothing. It becomes <build>/macho/<name>.dylib, made by
# the target macho_<name>. What it imports and does not define is looked up when it is loaded.
set(MACHO_IMAGE_DIR ${CMAKE_BINARY_DIR}/macho CACHE INTERNAL "Where Mach-O images are built")

function(add_macho_image name)
  cmake_parse_arguments(ARG "" "SOURCE;ARCHITECTURE" "COMPILE;LINK" ${ARGN})
  find_program(MACHO_CLANG NAMES clang clang-19 clang-16 clang-14)
  find_program(MACHO_LINKER NAMES ld64.lld-19 ld64.lld-16 ld64.lld-15 ld64.lld)
  if(NOT MACHO_CLANG OR NOT MACHO_LINKER)
    message(FATAL_ERROR "Mach-O images are built with clang and ld64.lld of version 15 or later, which are not both \
installed. On Debian: apt-get install clang lld-16")
  endif()
  if(NOT MACHO_LINKER_CHAINS)
    execute_process(COMMAND ${MACHO_LINKER} --help OUTPUT_VARIABLE help ERROR_QUIET)
    if(NOT help MATCHES "fixup_chains")
      message(FATAL_ERROR "${MACHO_LINKER} knows no chained fixups: version 15 or later of ld64.lld is needed. \
On Debian: apt-get install lld-16")
    endif()
    set(MACHO_LINKER_CHAINS TRUE CACHE INTERNAL "The linker was seen to know chained fixups")
  endif()

  set(source ${CMAKE_CURRENT_SOURCE_DIR}/${ARG_SOURCE})
  set(object ${MACHO_IMAGE_DIR}/${name}.o)
  set(image ${MACHO_IMAGE_DIR}/${name}.dylib)
  file(MAKE_DIRECTORY ${MACHO_IMAGE_DIR})
  add_custom_command(
    OUTPUT ${image}
    COMMAND ${MACHO_CLANG} -target ${ARG_ARCHITECTURE}-apple-macos13 -O1 -fno-stack-protector ${ARG_COMPILE}
            -c ${source} -o ${object}
    COMMAND ${MACHO_LINKER} -arch ${ARG_ARCHITECTURE} -platform_version macos 13 13 -dylib
            -undefined dynamic_lookup ${ARG_LINK} ${object} -o ${image}
    DEPENDS ${source}
    COMMENT "Building Mach-O image ${name}"
    VERBATIM)
  add_custom_target(macho_${name} DEPENDS ${image})
endfunction()
