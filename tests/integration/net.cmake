# The backend client and the upload workflow against the reference backend (tools/reference-backend) on
# loopback.
# ReferenceBackend and DelegateHarness live with the other fixtures in tests/support; this library keeps
# the binaries that do not talk to the backend from linking Qt Network and the core.
add_library(tavrel_net_testbackend STATIC
    ${PROJECT_SOURCE_DIR}/tests/support/ReferenceBackend.cpp ${PROJECT_SOURCE_DIR}/tests/support/ReferenceBackend.h
    ${PROJECT_SOURCE_DIR}/tests/support/DelegateHarness.h)
target_link_libraries(tavrel_net_testbackend PUBLIC tavrel_testsupport tavrel_core Qt6::Network QCoro6::Core)
target_compile_definitions(tavrel_net_testbackend PRIVATE TAVREL_SOURCE_DIR_FALLBACK="${PROJECT_SOURCE_DIR}")
tavrel_warnings(tavrel_net_testbackend)

tavrel_add_test(net_integration_tests LABELS integration
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/net/UploadServiceTest.cpp
    LIBS tavrel_net tavrel_net_testbackend)

# The delegate's upload workflow needs widgets (the delegate owns the recording panel).
tavrel_add_test(net_workflow_tests LABELS integration QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/net/UploadWorkflowTest.cpp
    LIBS tavrel_app tavrel_net tavrel_platform_fake tavrel_net_testbackend)

# The real program (the shipped binary for its real dialogs, the test build for scripted answers) sending
# to the reference backend under Xvfb, killed while following a job, woken from suspend by a mock logind.
tavrel_add_test(net_e2e_tests LABELS integration TIMEOUT 300
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/net/UploadEndToEndTest.cpp
    LIBS tavrel_net_testbackend Qt6::DBus)
target_compile_definitions(net_e2e_tests PRIVATE TAVREL_RECORDER_BIN="$<TARGET_FILE:tavrel-recorder-scripted>"
    TAVREL_SHIPPED_RECORDER_BIN="$<TARGET_FILE:tavrel-recorder>")
add_dependencies(net_e2e_tests tavrel-recorder-scripted tavrel-recorder)
