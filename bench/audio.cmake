# Microphone start latency and CPU share against pa_simple and `parecord | ffmpeg`, on a private PulseAudio.
#   bench_audio_mic [seconds, default 60] [latency rounds, default 10]
if(TARGET tavrel_testsupport)
    pkg_check_modules(PULSE_SIMPLE IMPORTED_TARGET libpulse-simple)
    if(PULSE_SIMPLE_FOUND)
        add_executable(bench_audio_mic ${CMAKE_CURRENT_LIST_DIR}/audio/MicBench.cpp)
        target_link_libraries(bench_audio_mic PRIVATE tavrel_audio tavrel_testsupport Qt6::Core PkgConfig::PULSE_SIMPLE)
        tavrel_warnings(bench_audio_mic)
    endif()
endif()

# Alignment of the two sides after a simulated hour, against the same chunks appended as they come.
#   bench_audio_alignment [minutes, default 60]
if(TARGET tavrel_sysaudio_testsupport)
    add_executable(bench_audio_alignment ${CMAKE_CURRENT_LIST_DIR}/audio/AlignmentBench.cpp)
    target_link_libraries(bench_audio_alignment PRIVATE tavrel_sysaudio_testsupport)
    tavrel_warnings(bench_audio_alignment)
endif()
