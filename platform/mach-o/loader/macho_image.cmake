# add_macho_image(name SOURCE file ARCHITECTURE x86_64|arm64 [COMPILE options...] [LINK options...]): a Mach-O
# library for macOS, built from one C file that includes nothing. It becomes <build>/macho/<name>.dylib, made by
# the target macho_<name>. What it imports and does not define is looked up when it is loaded.
set(MACHO_IMAGE_DIR ${CMAKE_BINARY_DIR}/macho CACHE INTERNAL "Where Mach-O images are built")

find_program(MACHO_CLANG NAMES clang clang-19 clang-16 clang-14)
find_program(MACHO_LINKER NAMES ld64.lld-19 ld64.lld-16 ld64.lld-15 ld64.lld)
set(MACHO_IMAGES_CAN_BE_BUILT FALSE CACHE INTERNAL "Whether clang and an ld64.lld that knows chained fixups are there")
if(MACHO_CLANG AND MACHO_LINKER)
  execute_process(COMMAND ${MACHO_LINKER} --help OUTPUT_VARIABLE linker_help ERROR_QUIET)
  if(linker_help MATCHES "-fixup_chains")
    set(MACHO_IMAGES_CAN_BE_BUILT TRUE CACHE INTERNAL "")
  endif()
endif()

function(add_macho_image name)
  cmake_parse_arguments(ARG "" "SOURCE;ARCHITECTURE" "COMPILE;LINK" ${ARGN})
  if(NOT MACHO_IMAGES_CAN_BE_BUILT)
    message(FATAL_ERROR "Mach-O images are built with clang and ld64.lld of version 15 or later, which are not both \
here (clang: ${MACHO_CLANG}, ld64.lld: ${MACHO_LINKER}). On Debian: apt-get install clang lld-16")
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
