# Widgets under QT_QPA_PLATFORM=offscreen: meter, panel, popover, alerts and their forms, icons.
tavrel_add_test(ui_tests LABELS ui QT_GUI TIMEOUT 120
    SOURCES
        ${CMAKE_CURRENT_LIST_DIR}/AlertTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/MainPopoverTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/RecordingHUDTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/SymbolIconTest.cpp
        ${CMAKE_CURRENT_LIST_DIR}/VUMeterViewTest.cpp
    LIBS tavrel_ui Qt6::Test)

