# The Windows exe's version resource and the NSIS installer, both from one
# version string (normally PROJECT_VERSION; the tests build a higher one to
# upgrade to).

# Gives `target` a VERSIONINFO resource: `name` is the exe's file name without
# ".exe", `version` "MAJOR.MINOR.PATCH".
function(orvel_add_version_resource target name description version)
  set(ORVEL_RC_NAME ${name})
  set(ORVEL_RC_DESCRIPTION ${description})
  set(ORVEL_RC_VERSION ${version})
  string(REPLACE "." "," ORVEL_RC_VERSION_COMMAS "${version},0")
  set(rc ${CMAKE_CURRENT_BINARY_DIR}/generated/${target}-version.rc)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/version.rc.in ${rc} @ONLY)
  target_sources(${target} PRIVATE ${rc})
endfunction()

# A custom target `target` that builds the installer `output` for `version`
# from the exe of `helper_target` and, when `core` names a file, that
# sing-box.exe. Warnings of makensis are errors, as the compiler's are.
function(orvel_add_installer target output version helper_target core)
  find_program(ORVEL_MAKENSIS makensis REQUIRED)
  set(script ${PROJECT_SOURCE_DIR}/packaging/windows/OrvelVpnHelper.nsi)
  set(defines -DVERSION=${version} -DHELPER_EXE=$<TARGET_FILE:${helper_target}>
              -DOUTFILE=${output})
  set(depends ${script} ${helper_target})
  if(core)
    list(APPEND defines -DCORE_EXE=${core})
    list(APPEND depends ${core})
  endif()
  add_custom_command(OUTPUT ${output}
                     COMMAND ${ORVEL_MAKENSIS} -V2 -WX ${defines} ${script}
                     DEPENDS ${depends}
                     COMMENT "Building ${output}"
                     VERBATIM)
  add_custom_target(${target} DEPENDS ${output})
endfunction()
