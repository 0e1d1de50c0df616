tavrel_add_test(platform_integration_tests LABELS integration QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/platform/LinuxPlatformTest.cpp
    LIBS tavrel_platform Qt6::Test)
