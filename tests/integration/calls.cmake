# Who captures the microphone, asked of real audio servers.
tavrel_add_test(calls_integration_tests LABELS integration TIMEOUT 240
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/calls/PulseMicInputQueryTest.cpp
    LIBS tavrel_core tavrel_audio)

# The delegate's wiring of the monitor to the session, with the real recorder.
tavrel_add_test(calls_session_tests LABELS integration TIMEOUT 240 QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/calls/CallSessionTest.cpp
    LIBS tavrel_app tavrel_platform_fake Qt6::Test)
