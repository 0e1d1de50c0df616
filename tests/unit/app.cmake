# The crash probe crashes on purpose; the crash-hook tests read what it printed.
add_executable(tavrel_crash_probe ${CMAKE_CURRENT_LIST_DIR}/app/CrashProbe.cpp)
target_link_libraries(tavrel_crash_probe PRIVATE tavrel_app_entry)
set_target_properties(tavrel_crash_probe PROPERTIES ENABLE_EXPORTS ON)

tavrel_add_test(app_unit_tests LABELS unit
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/app/CrashHooksTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/app/DisplayChoiceTest.cpp
    LIBS tavrel_app_entry)
target_compile_definitions(app_unit_tests PRIVATE TAVREL_CRASH_PROBE="$<TARGET_FILE:tavrel_crash_probe>")
add_dependencies(app_unit_tests tavrel_crash_probe)
