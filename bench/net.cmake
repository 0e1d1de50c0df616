# Upload throughput of a large recording against curl posting the same body, and the upload's memory peak.
#   bench_net_upload [megabytes, default 50] [rounds, default 3] [raw: the server does not parse the form]
if(TARGET tavrel_net_testbackend)
    add_executable(bench_net_upload ${CMAKE_CURRENT_LIST_DIR}/net/UploadBench.cpp)
    target_link_libraries(bench_net_upload PRIVATE tavrel_net tavrel_net_testbackend Qt6::Core)
    tavrel_warnings(bench_net_upload)
endif()
