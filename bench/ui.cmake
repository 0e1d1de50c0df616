# CPU share of the recording panel's 20 Hz meter refresh against an idle event loop, offscreen.
#   bench_ui_hud [seconds per phase, default 20]
add_executable(bench_ui_hud ${CMAKE_CURRENT_LIST_DIR}/ui/HudMeterBench.cpp)
target_link_libraries(bench_ui_hud PRIVATE tavrel_ui Qt6::Widgets)
tavrel_warnings(bench_ui_hud)
