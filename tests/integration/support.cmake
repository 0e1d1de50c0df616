# The harness's own measuring tools and process handling (its fixtures are exercised by every other
# integration test).
tavrel_add_test(support_tests LABELS integration TIMEOUT 120
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/support/ManagedProcessTest.cpp ${CMAKE_CURRENT_LIST_DIR}/support/MediaTest.cpp)
