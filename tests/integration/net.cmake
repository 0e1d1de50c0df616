# The backend client and the upload workflow against the reference backend (tools/reference-backend) on
# loopback.
add_library(tavrel_net_testbackend STATIC
    ${CMAKE_CURRENT_LIST_DIR}/net/ReferenceBackend.cpp ${CMAKE_CURRENT_LIST_DIR}/net/ReferenceBackend.h)
target_include_directories(tavrel_net_testbackend PUBLIC ${CMAKE_CURRENT_LIST_DIR}/net)
target_link_libraries(tavrel_net_testbackend PUBLIC tavrel_testsupport tavrel_core Qt6::Network QCoro6::Core)
target_compile_definitions(tavrel_net_testbackend PRIVATE TAVREL_SOURCE_DIR_FALLBACK="${PROJECT_SOURCE_DIR}")
tavrel_warnings(tavrel_net_testbackend)

tavrel_add_test(net_integration_tests LABELS integration
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/net/UploadServiceTest.cpp
    LIBS tavrel_net tavrel_net_testbackend)

# The delegate's upload workflow needs widgets (the delegate owns the recording panel).
tavrel_add_test(net_workflow_tests LABELS integration QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/net/UploadWorkflowTest.cpp ${CMAKE_CURRENT_LIST_DIR}/net/DelegateHarness.h
    LIBS tavrel_app tavrel_net tavrel_platform_fake tavrel_net_testbackend)
