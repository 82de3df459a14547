# The two commands a newcomer needs:
#   make demo   install what is missing, build, and show two aggregation trees
#   make test   install what is missing, build, and run the whole test suite
BUILD_DIR ?= build
ASAN_BUILD_DIR ?= build-asan
JOBS ?= 2

.PHONY: demo test build deps sanitize bench format clean

demo: build
	$(BUILD_DIR)/bin/aggtree demo

test: build
	cd $(BUILD_DIR) && ctest -j$(JOBS) --output-on-failure

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j$(JOBS)

deps:
	./scripts/install-deps.sh

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer.
sanitize: deps
	cmake -S . -B $(ASAN_BUILD_DIR) -DCMAKE_BUILD_TYPE=Debug -DAGGTREE_SANITIZE=ON
	cmake --build $(ASAN_BUILD_DIR) -j$(JOBS)
	cd $(ASAN_BUILD_DIR) && ASAN_OPTIONS=allocator_may_return_null=1:detect_leaks=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest -j$(JOBS) --output-on-failure

bench: build
	$(BUILD_DIR)/bench/aggtree_bench

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD_DIR) $(ASAN_BUILD_DIR)
