# CPU share of the program idle in the tray and while recording, against a bare Qt event loop.
#   bench_app_cpu [seconds per phase, default 60]
if(TARGET tavrel_testsupport AND TARGET tavrel-recorder-scripted)
    add_executable(bench_app_reference ${CMAKE_CURRENT_LIST_DIR}/app/ReferenceLoop.cpp)
    target_link_libraries(bench_app_reference PRIVATE Qt6::Widgets)
    tavrel_warnings(bench_app_reference)
    add_executable(bench_app_cpu ${CMAKE_CURRENT_LIST_DIR}/app/ShellCpuBench.cpp)
    target_link_libraries(bench_app_cpu PRIVATE tavrel_testsupport Qt6::Core Qt6::DBus)
    target_compile_definitions(bench_app_cpu PRIVATE
        TAVREL_RECORDER_BIN="$<TARGET_FILE:tavrel-recorder-scripted>"
        TAVREL_REFERENCE_BIN="$<TARGET_FILE:bench_app_reference>")
    add_dependencies(bench_app_cpu tavrel-recorder-scripted bench_app_reference)
    tavrel_warnings(bench_app_cpu)
endif()
