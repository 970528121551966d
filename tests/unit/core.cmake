# Unit tests of the module floor. They run inside an embedded interpreter: callbacks, values and the interpreter
# lock are part of what is tested.
find_package(Python 3.9 REQUIRED COMPONENTS Interpreter Development.Embed)

add_executable(unit_core
  core_fixture.cpp
  test_dbcore.cpp test_dbcore_alarm.cpp test_dbcore_recv.cpp
  test_dbdriver_names.cpp test_dbdriver_notify.cpp test_dbdriver_values.cpp test_dbdriver_write.cpp
  test_pyglue.cpp test_recvbuffer.cpp test_recvlink.cpp test_storm.cpp)
target_link_libraries(unit_core PRIVATE rkdbcore Python::Python GTest::gtest)
target_compile_definitions(unit_core PRIVATE RKDB_MIRROR_ROOT="${RKDB_MIRROR_ROOT}")
gtest_discover_tests(unit_core DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 60)
