# The delegate in the test process (real recorder on a private PulseAudio, offscreen widgets, fake desktop).
tavrel_add_test(app_integration_tests LABELS integration QT_GUI TIMEOUT 600
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/app/AppDelegateTestBase.h
        ${CMAKE_CURRENT_LIST_DIR}/app/AppDelegateTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/app/SessionControllerTest.cpp
    LIBS tavrel_app tavrel_platform_fake Qt6::Test)
