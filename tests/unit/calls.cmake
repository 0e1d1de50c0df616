tavrel_add_test(calls_unit_tests LABELS unit
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/calls/StreamIdentityTest.cpp
    LIBS tavrel_core tavrel_audio)
