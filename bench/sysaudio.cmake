# Merging speed against ffmpeg's amix, and the CPU share of recording the microphone with a system source.
#   bench_sysaudio_merge [minutes, default 60]
#   bench_sysaudio_cpu [seconds, default 30]
add_executable(bench_sysaudio_merge ${CMAKE_CURRENT_LIST_DIR}/sysaudio/MergeBench.cpp)
target_link_libraries(bench_sysaudio_merge PRIVATE tavrel_audio Qt6::Core)
tavrel_warnings(bench_sysaudio_merge)

if(TARGET tavrel_testsupport)
    add_executable(bench_sysaudio_cpu ${CMAKE_CURRENT_LIST_DIR}/sysaudio/CaptureCpuBench.cpp)
    target_link_libraries(bench_sysaudio_cpu PRIVATE tavrel_audio tavrel_testsupport Qt6::Core)
    tavrel_warnings(bench_sysaudio_cpu)
endif()
