# The two commands a newcomer needs:
#   make demo   install what is missing, build, and show two aggregation trees
#   make test   install what is missing, build, and run the whole test suite
BUILD_DIR ?= build
ASAN_BUILD_DIR ?= build-asan
FUZZ_BUILD_DIR ?= build-fuzz
JOBS ?= 2
# Seconds each fuzz target runs in `make fuzz`.
FUZZ_SECONDS ?= 20
FUZZ_TARGETS = fabric_file job_file ibnetdiscover create_tree
# Requests of the long-service test under the memory checker.
MEMCHECK_REQUESTS ?= 300

.PHONY: demo test build deps sanitize fuzz memcheck bench format clean

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

# Each libFuzzer target (fuzz/) for FUZZ_SECONDS under ASan and UBSan, in its own clang
# build; fails when one finds an input that crashes, hangs or breaks a check.
fuzz: deps
	cmake -S . -B $(FUZZ_BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_CXX_COMPILER=clang++-14 -DAGGTREE_FUZZ=ON -DAGGTREE_BUILD_TESTS=OFF \
	  -DAGGTREE_BUILD_BENCHMARKS=OFF
	cmake --build $(FUZZ_BUILD_DIR) -j$(JOBS) --target $(FUZZ_TARGETS:%=%_fuzzer)
	./scripts/run-fuzzers.sh $(FUZZ_BUILD_DIR) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

# The long-service test, shortened, under valgrind's memcheck: no invalid access, no
# leak.  (The fault-injection tests replace the allocator, which memcheck does too;
# they run under the sanitizers instead.)
memcheck: build
	AGGTREE_LONG_SERVICE_REQUESTS=$(MEMCHECK_REQUESTS) valgrind --error-exitcode=1 \
	  --leak-check=full --errors-for-leak-kinds=definite,indirect --quiet \
	  $(BUILD_DIR)/tests/tree_on_demand_long_service_test

bench: build
	$(BUILD_DIR)/bench/aggtree_bench

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf $(BUILD_DIR) $(ASAN_BUILD_DIR) $(FUZZ_BUILD_DIR)
