# What recovery adds to a launch after a crash, against a stop's merge of the same tracks.
#   bench_recovery [minutes, default 60]
add_executable(bench_recovery ${CMAKE_CURRENT_LIST_DIR}/recovery/RecoveryBench.cpp)
target_link_libraries(bench_recovery PRIVATE tavrel_audio Qt6::Core)
tavrel_warnings(bench_recovery)
