# libkeymaster41_ts: the sources that a device build takes too, and nothing else.
add_library(keymaster41_ts SHARED
  context/attest.cpp
  context/authorization.cpp
  context/characteristics.cpp
  context/export.cpp
  context/finish.cpp
  context/generate.cpp
  context/import.cpp
  context/key_material.cpp
  context/lifecycle.cpp
  context/operation.cpp
  context/reply.cpp
  context/serialized_params.cpp
  context/wrapped_import.cpp
  diag/fault_event.cpp
  marshal/input_builders.cpp
  marshal/km_params.cpp
  marshal/param_set.cpp
  marshal/reply_decoder.cpp
  tee/command_frame.cpp
  tee/device_commands.cpp
  tee/key_commands.cpp
  tee/operation_commands.cpp
  tee/session.cpp
  tee/ta_error.cpp
  tee/tee_context.cpp)
target_include_directories(keymaster41_ts
  PUBLIC ${PROJECT_SOURCE_DIR}/include
  PRIVATE ${PROJECT_SOURCE_DIR})
target_compile_options(keymaster41_ts PRIVATE
  -fno-exceptions -fno-rtti -fvisibility=hidden -fvisibility-inlines-hidden
  # Every allocation stays the malloc that a test or a device may put in its place.
  -fno-builtin-malloc
  # All symbols are bound at load time, so that stubs for a later binding would be detours.
  -fno-plt)
set(KM_EXPORTS ${PROJECT_SOURCE_DIR}/cmake/libkeymaster41_ts.map)
target_link_options(keymaster41_ts PRIVATE -Wl,--version-script=${KM_EXPORTS})
set_target_properties(keymaster41_ts PROPERTIES
  LINK_DEPENDS ${KM_EXPORTS}
  VERSION ${PROJECT_VERSION}
  SOVERSION ${PROJECT_VERSION_MAJOR})
# The headers of keymaster_support are part of the public face; the rest stays inside.
target_link_libraries(keymaster41_ts
  PUBLIC keymaster_support
  PRIVATE km_flags km_counted teec log zubrel qavix securec OpenSSL::Crypto)
