# The scripted provider: the module, and the object library that tests link to steer it.
include_guard(GLOBAL)

add_library(qx_scripted_provider MODULE "${CMAKE_SOURCE_DIR}/tests/support/scripted_provider_module.cpp")
target_link_libraries(qx_scripted_provider PRIVATE qx_flags qxwin)
if(QX_WINDOWS)
  qx_runtime_beside_programs()
endif()

qx_object_library(qx_scripted_provider_control
  SOURCES "${CMAKE_SOURCE_DIR}/tests/support/scripted_provider.cpp" LINK qxwin)
target_compile_definitions(qx_scripted_provider_control
  PRIVATE "QX_SCRIPTED_PROVIDER=\"$<TARGET_FILE:qx_scripted_provider>\"")
add_dependencies(qx_scripted_provider_control qx_scripted_provider)
