if(CMAKE_SYSTEM_NAME STREQUAL "Darwin")
  # A build is signed for this Mac alone, under the identifier that it has when it is delivered;
  # Packaging/Darwin/sign does the rest.
  function(stillow_sign target identifier)
    add_custom_command(
      TARGET ${target} POST_BUILD
      COMMAND codesign --force --sign - --identifier "${identifier}" "$<TARGET_FILE:${target}>"
      VERBATIM)
  endfunction()
  return()
endif()

# Every executable that speaks to the daemon carries a signature beside it, in development builds
# too, so that the daemon's check of its peers is never switched off. The build makes a key of its
# own in the build tree; a key never leaves the tree that made it.

set(STILLOW_SIGNING_DIRECTORY "${PROJECT_BINARY_DIR}/signing")
# Where a daemon in the build tree looks for the anchor that its peers' signatures must lead to.
set(STILLOW_SIGNING_ANCHOR "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/anchor.pem")

add_custom_command(
  OUTPUT "${STILLOW_SIGNING_ANCHOR}"
  COMMAND "${PROJECT_SOURCE_DIR}/scripts/codesign" --make-key "${STILLOW_SIGNING_DIRECTORY}"
  COMMAND "${CMAKE_COMMAND}" -E make_directory "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
  COMMAND install -m 644 "${STILLOW_SIGNING_DIRECTORY}/anchor.pem" "${STILLOW_SIGNING_ANCHOR}"
  COMMENT "Making the signing key of this build tree"
  VERBATIM)
add_custom_target(stillow_signing_key DEPENDS "${STILLOW_SIGNING_ANCHOR}")

# stillow_sign(TARGET IDENTIFIER): signs the executable under IDENTIFIER each time it is linked.
function(stillow_sign target identifier)
  add_dependencies(${target} stillow_signing_key)
  # A new key signs everything anew.
  set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS "${STILLOW_SIGNING_ANCHOR}")
  add_custom_command(
    TARGET ${target} POST_BUILD
    COMMAND "${PROJECT_SOURCE_DIR}/scripts/codesign" "$<TARGET_FILE:${target}>" "${identifier}"
            --key-directory "${STILLOW_SIGNING_DIRECTORY}"
    COMMENT "Signing ${target} as ${identifier}"
    VERBATIM)
endfunction()
