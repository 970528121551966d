# What a wheel holds: the module, its types for editors and for mypy, and the simulator's command.
# Everything belongs to the component "python"; pyproject.toml asks for this component alone.
set(RKDB_STUB "${PROJECT_SOURCE_DIR}/src/RkDBAccess/RkDBAccess.pyi")

install(TARGETS RkDBAccess LIBRARY DESTINATION . COMPONENT python)

# One source, two places: editors look beside the module, mypy reads types of a top-level module only from
# a package named *-stubs.
install(FILES "${RKDB_STUB}" DESTINATION . COMPONENT python)
install(FILES "${RKDB_STUB}" DESTINATION RkDBAccess-stubs RENAME __init__.pyi COMPONENT python)

if(RKDB_BUILD_SIM)
  # scikit-build-core names the wheel's folder of commands; a plain install puts the command into bin/.
  if(NOT DEFINED SKBUILD_SCRIPTS_DIR)
    set(SKBUILD_SCRIPTS_DIR bin)
  endif()
  install(TARGETS rkdbsim RUNTIME DESTINATION "${SKBUILD_SCRIPTS_DIR}" COMPONENT python)
endif()
