# Call detection against real audio servers, and the account link through the running program.
tavrel_add_test(calls_integration_tests LABELS integration TIMEOUT 240 QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/calls/PulseMicInputQueryTest.cpp
    LIBS tavrel_core tavrel_audio Qt6::Widgets)

# A meeting client that mutes (corks its stream) and reconnects after an audio server restart.
add_executable(fake_meeting_client ${CMAKE_CURRENT_LIST_DIR}/calls/FakeMeetingClient.cpp)
target_link_libraries(fake_meeting_client PRIVATE PkgConfig::PULSE)
tavrel_warnings(fake_meeting_client)

# The delegate's wiring of the monitor to the session, with the real recorder.
tavrel_add_test(calls_session_tests LABELS integration TIMEOUT 240 QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/calls/CallSessionTest.cpp
    LIBS tavrel_app tavrel_platform_fake Qt6::Test)
target_compile_definitions(calls_session_tests PRIVATE TAVREL_FAKE_MEETING_CLIENT="$<TARGET_FILE:fake_meeting_client>")
add_dependencies(calls_session_tests fake_meeting_client)
