tavrel_add_test(platform_unit_tests LABELS unit
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/platform/XdgLoginItemTest.cpp
    LIBS tavrel_platform)
