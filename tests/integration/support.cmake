# The harness's own measuring tools: if they were wrong, the audio tests would pass or fail for the wrong reason.
# (Its fixtures and process handling are exercised by every other integration test.)
tavrel_add_test(support_tests LABELS integration TIMEOUT 120
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/support/MediaTest.cpp)
