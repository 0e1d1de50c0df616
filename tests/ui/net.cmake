# The upload form offscreen, and the upload dialog and unsent-recordings alert answered programmatically
# against the reference backend.
tavrel_add_test(net_ui_tests LABELS ui QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/net/UploadDialogTest.cpp ${CMAKE_CURRENT_LIST_DIR}/net/UploadDialogFlowTest.cpp
    LIBS tavrel_app tavrel_net tavrel_ui tavrel_platform_fake tavrel_net_testbackend Qt6::Test)
