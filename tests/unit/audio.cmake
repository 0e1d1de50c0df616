tavrel_add_test(audio_tests LABELS unit
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/audio/AudioErrorsTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/audio/RecordingFilesTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/audio/SampleRingTest.cpp
    LIBS tavrel_audio)
