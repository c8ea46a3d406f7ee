nightjar_bench(model_bench SOURCES ${CMAKE_CURRENT_LIST_DIR}/model_bench.cc LIBS nightjar_model)
