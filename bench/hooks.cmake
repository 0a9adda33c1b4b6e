# Rebinding in images with 10,000 imports: the rows for zarvo-bench, and a program of their own.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64|arm64")
  set(image_architecture arm64)
else()
  set(image_architecture x86_64)
endif()
add_library(bench_hooks STATIC hooks_bench.cpp)
target_link_libraries(bench_hooks PRIVATE warnings hooks macho_loader)
target_link_libraries(bench_hooks INTERFACE $<TARGET_OBJECTS:hooks>)
target_compile_definitions(bench_hooks PRIVATE
  LAZY_IMPORTS_IMAGE="${MACHO_IMAGE_DIR}/imports_lazy.dylib"
  READ_ONLY_IMPORTS_IMAGE="${MACHO_IMAGE_DIR}/imports_read_only.dylib")
# Who only wants to run the service need not have what builds the images.
if(MACHO_IMAGES_CAN_BE_BUILT)
  add_macho_image(imports_lazy SOURCE imports.c ARCHITECTURE ${image_architecture} LINK -no_fixup_chains)
  add_macho_image(imports_read_only SOURCE imports.c ARCHITECTURE ${image_architecture} LINK -fixup_chains)
  add_dependencies(bench_hooks macho_imports_lazy macho_imports_read_only)
else()
  message(STATUS "Without clang and lld-16 the images that the hooks' benchmarks rebind in are not built")
endif()

add_executable(zarvo-bench-hooks hooks_main.cpp report.cpp)
target_link_libraries(zarvo-bench-hooks PRIVATE warnings bench_hooks fmt::fmt nlohmann_json::nlohmann_json)
