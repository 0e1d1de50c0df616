add_executable(tavrel_record_until_killed ${CMAKE_CURRENT_LIST_DIR}/audio/RecordUntilKilled.cpp)
target_link_libraries(tavrel_record_until_killed PRIVATE tavrel_audio)
tavrel_warnings(tavrel_record_until_killed)

tavrel_add_test(audio_integration_tests LABELS integration TIMEOUT 240
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/audio/AudioTestSupport.cpp ${CMAKE_CURRENT_LIST_DIR}/audio/AudioTestSupport.h
        ${CMAKE_CURRENT_LIST_DIR}/audio/MicRecordingTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/audio/OrchestratorTest.cpp
    LIBS tavrel_audio)
target_compile_definitions(audio_integration_tests PRIVATE
    TAVREL_RECORD_UNTIL_KILLED="$<TARGET_FILE:tavrel_record_until_killed>")
add_dependencies(audio_integration_tests tavrel_record_until_killed)
