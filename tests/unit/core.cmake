tavrel_add_test(core_tests LABELS unit
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/core/AuthLinkTest.cpp ${CMAKE_CURRENT_LIST_DIR}/core/CallMonitorTest.cpp
            ${CMAKE_CURRENT_LIST_DIR}/core/ClientResolverTest.cpp ${CMAKE_CURRENT_LIST_DIR}/core/LevelTest.cpp
            ${CMAKE_CURRENT_LIST_DIR}/core/SettingsManagerTest.cpp
    LIBS tavrel_core tavrel_net)
