# The upload form offscreen.
tavrel_add_test(net_ui_tests LABELS ui QT_GUI
    SOURCES ${CMAKE_CURRENT_LIST_DIR}/net/UploadDialogTest.cpp
    LIBS tavrel_ui Qt6::Test)
