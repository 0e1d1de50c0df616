# System-audio sources against private PulseAudio and PipeWire servers.
tavrel_add_test(sysaudio_integration_tests LABELS integration TIMEOUT 400
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/sysaudio/RecordingWithSystemAudioTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/sysaudio/SystemCaptureTest.cpp
    LIBS tavrel_audio)
