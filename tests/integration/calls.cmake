# Call detection against real audio servers, and the account link through the running program.
tavrel_add_test(calls_integration_tests LABELS integration TIMEOUT 240 QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/calls/PulseMicInputQueryTest.cpp
            ${CMAKE_CURRENT_LIST_DIR}/calls/CallMonitorPulseTest.cpp
    LIBS tavrel_core tavrel_audio Qt6::Widgets)

# The delegate's wiring of the monitor to the session, with the real recorder.
tavrel_add_test(calls_session_tests LABELS integration TIMEOUT 240 QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/calls/CallSessionTest.cpp
    LIBS tavrel_app tavrel_platform_fake Qt6::Test)
