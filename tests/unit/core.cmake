# Unit tests of the module floor. They run inside an embedded interpreter: callbacks, values and the interpreter
# lock are part of what is tested.
find_package(Python 3.9 REQUIRED COMPONENTS Interpreter Development.Embed)

add_library(core_fixture OBJECT core_fixture.cpp core_python.cpp)
target_link_libraries(core_fixture PUBLIC rkdbcore Python::Python GTest::gtest)
target_compile_definitions(core_fixture PUBLIC RKDB_MIRROR_ROOT="${RKDB_MIRROR_ROOT}")

add_executable(unit_core
  test_dbcore.cpp test_dbcore_alarm.cpp test_dbcore_ends.cpp test_dbcore_recv.cpp
  test_dbdriver_names.cpp test_dbdriver_notify.cpp test_dbdriver_values.cpp test_dbdriver_write.cpp
  test_disturbed.cpp test_pyglue.cpp test_recvbuffer.cpp test_recvlink.cpp test_storm.cpp)
target_link_libraries(unit_core PRIVATE core_fixture)
rkdb_unit_tests(unit_core)

# Apart from the others for its operator new.
add_executable(unit_nomemory refusing_new.cpp test_nomemory.cpp)
target_link_libraries(unit_nomemory PRIVATE core_fixture)
rkdb_unit_tests(unit_nomemory)
