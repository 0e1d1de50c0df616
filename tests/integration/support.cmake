# The harness itself, against the real daemons: each fixture proves it works here.
tavrel_add_test(support_audio_tests LABELS integration TIMEOUT 120
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/support/AudioServerFixtureTest.cpp)
tavrel_add_test(support_media_tests LABELS integration TIMEOUT 120
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/support/MediaTest.cpp)
tavrel_add_test(support_desktop_tests LABELS integration TIMEOUT 120
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/support/SessionBusFixtureTest.cpp
            ${CMAKE_CURRENT_LIST_DIR}/support/XvfbFixtureTest.cpp
            ${CMAKE_CURRENT_LIST_DIR}/support/ManagedProcessTest.cpp
    LIBS Qt6::DBus Qt6::Test)
add_dependencies(support_desktop_tests tavrel_tray_probe)
target_compile_definitions(support_desktop_tests PRIVATE TAVREL_TRAY_PROBE="$<TARGET_FILE:tavrel_tray_probe>")
