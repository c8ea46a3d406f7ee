# The XML writer on the arrays a black-box run saved (see bench/blackbox.py);
# its own main registers one case per file.
add_executable(reply_bench ${CMAKE_CURRENT_LIST_DIR}/reply_bench.cc)
target_link_libraries(reply_bench PRIVATE nightjar_plist benchmark::benchmark)
