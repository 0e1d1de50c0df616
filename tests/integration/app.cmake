# The delegate in the test process (real recorder on a private PulseAudio, offscreen widgets, fake desktop).
tavrel_add_test(app_integration_tests LABELS integration QT_GUI TIMEOUT 600
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/app/AppDelegateTestBase.h
        ${CMAKE_CURRENT_LIST_DIR}/app/AppDelegateTest.cpp
    LIBS tavrel_app tavrel_platform_fake Qt6::Test)

# The real program under Xvfb, driven through its tray, command line and D-Bus face.
tavrel_add_test(app_e2e_tests LABELS integration TIMEOUT 600
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/app/EndToEndTest.cpp
    LIBS Qt6::DBus Qt6::Gui tavrel_net_testbackend)
target_compile_definitions(app_e2e_tests PRIVATE
    TAVREL_RECORDER_BIN="$<TARGET_FILE:tavrel-recorder-scripted>"
    TAVREL_RECORDER_SHIPPED_BIN="$<TARGET_FILE:tavrel-recorder>"
    TAVREL_DESKTOP_ENTRY="${PROJECT_SOURCE_DIR}/resources/fr.tavrel.Recorder.desktop")
add_dependencies(app_e2e_tests tavrel-recorder-scripted tavrel-recorder)

# The real program killed at the moments a working day kills it, and launched again.
tavrel_add_test(app_recovery_tests LABELS integration TIMEOUT 900
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/app/CrashRecoveryTest.cpp
    LIBS Qt6::DBus)
target_compile_definitions(app_recovery_tests PRIVATE TAVREL_RECORDER_BIN="$<TARGET_FILE:tavrel-recorder-scripted>")
add_dependencies(app_recovery_tests tavrel-recorder-scripted)
