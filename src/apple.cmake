# The service as an XPC service bundle.
set(ZARVO_SDK_FRAMEWORK "" CACHE PATH "The video SDK's framework, as a path to NAME.framework")
if(NOT ZARVO_SDK_FRAMEWORK)
  message(FATAL_ERROR "Say where the video SDK's framework is: -DZARVO_SDK_FRAMEWORK=/path/to/NAME.framework")
endif()
get_filename_component(sdk_directory ${ZARVO_SDK_FRAMEWORK} DIRECTORY)
get_filename_component(sdk_name ${ZARVO_SDK_FRAMEWORK} NAME_WE)

# Objective-C++ without Objective-C objects: a lambda converts to a block, a handle stays a C pointer.
foreach(target guest_service hooks zarvo-guest-service)
  target_compile_options(${target} PRIVATE -x objective-c++)
  target_compile_definitions(${target} PRIVATE OS_OBJECT_USE_OBJC=0)
endforeach()

foreach(framework CoreFoundation Foundation CoreVideo IOSurface VideoToolbox IOKit)
  target_link_libraries(guest_service PUBLIC "-framework ${framework}")
endforeach()
target_link_libraries(zarvo-guest-service PRIVATE "-F${sdk_directory}" "-framework ${sdk_name}")

set_target_properties(zarvo-guest-service PROPERTIES
  MACOSX_BUNDLE ON
  BUNDLE ON
  BUNDLE_EXTENSION xpc
  OUTPUT_NAME com.zarvo.guest-service
  MACOSX_BUNDLE_INFO_PLIST ${CMAKE_CURRENT_SOURCE_DIR}/Info.plist.in
  BUILD_RPATH "@loader_path/../Frameworks"
  INSTALL_RPATH "@loader_path/../Frameworks")
