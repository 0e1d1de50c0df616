# The harness itself, against the real daemons: each fixture proves it works here.
tavrel_add_test(support_audio_tests LABELS integration TIMEOUT 120
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/support/AudioServerFixtureTest.cpp
            ${CMAKE_CURRENT_LIST_DIR}/support/MediaTest.cpp)
tavrel_add_test(support_desktop_tests LABELS integration TIMEOUT 120
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/support/SessionBusFixtureTest.cpp
    LIBS Qt6::DBus Qt6::Test)
