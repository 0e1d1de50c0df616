# Upload of an hour-long recording as the program sends it against `curl -F` of the same file, the upload's
# memory peak and the longest main-thread stall.
#   bench_net_upload [megabytes, default 58] [rounds, default 3]
if(TARGET tavrel_net_testbackend)
    add_executable(bench_net_upload ${CMAKE_CURRENT_LIST_DIR}/net/UploadBench.cpp)
    target_link_libraries(bench_net_upload PRIVATE tavrel_net tavrel_net_testbackend Qt6::Core)
    tavrel_warnings(bench_net_upload)
endif()
