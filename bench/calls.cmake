# The call monitor idle (share of one core), and one poll against `pactl list short source-outputs`, on a
# private PulseAudio.
#   bench_calls_poll [rounds, default 200] [idle seconds, default 30]
if(TARGET tavrel_testsupport)
    add_executable(bench_calls_poll ${CMAKE_CURRENT_LIST_DIR}/calls/PollCostBench.cpp)
    target_link_libraries(bench_calls_poll PRIVATE tavrel_audio tavrel_testsupport Qt6::Core)
    tavrel_warnings(bench_calls_poll)
endif()
