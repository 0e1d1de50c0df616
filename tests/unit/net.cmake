tavrel_add_test(net_unit_tests LABELS unit
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/net/ClientResolverTest.cpp
    LIBS tavrel_net)
