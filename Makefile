# Newcomer entry points: `make demo` and `make test`. Build trees live under build/.
JOBS ?= 2
CYCLES ?= 1000000
DEMO_FILE ?= build/demo.twf
GEN := -G Ninja
# Events per workload of the comparison harness (`make bench`); e.g. `make bench BENCH_EVENTS=2000000`
# for a quick run. The table it writes into docs/performance.md says which count it ran.
BENCH_EVENTS ?= 100000000

.PHONY: demo test deps deps-python build-demo test-main test-asan test-tsan soak bench package clean

deps:
	@scripts/install-deps.sh

# The Python module's packages (pybind11, numpy, pytest, matplotlib): installed when missing and
# possible; without them its tests report themselves skipped.
deps-python:
	-@scripts/install-deps.sh python

# The tool alone, in Release: no tests, no benchmarks.
build-demo: deps
	cmake -S . -B build/demo $(GEN) -DCMAKE_BUILD_TYPE=Release -DTARVEL_TESTS=OFF -DTARVEL_BENCH=OFF
	cmake --build build/demo -j $(JOBS) --target tarvel_cli

# Builds the tool in Release and runs its built-in example: writes DEMO_FILE, then shows it.
demo: build-demo
	./build/demo/tools/tarvel/tarvel demo --cycles $(CYCLES) -o $(DEMO_FILE)

# Builds and runs every test: the plain build, then AddressSanitizer+UndefinedBehaviorSanitizer
# (with short fuzz runs), then ThreadSanitizer over the store-sharing tests, the reliability
# thread stress and the VCD tests (the import's writer thread). The plain build runs the Python
# module's pytest suite too.
test: deps deps-python test-main test-asan test-tsan

test-main:
	cmake -S . -B build/main $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARVEL_BENCH=OFF
	cmake --build build/main -j $(JOBS)
	cd build/main && ctest --output-on-failure -j $(JOBS) -LE fuzz

test-asan:
	cmake -S . -B build/asan $(GEN) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
	  -DTARVEL_SANITIZE=address,undefined -DTARVEL_FUZZ=ON -DTARVEL_BENCH=OFF
	cmake --build build/asan -j $(JOBS)
	cd build/asan && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

test-tsan:
	cmake -S . -B build/tsan $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
	  -DTARVEL_SANITIZE=thread -DTARVEL_BENCH=OFF
	cmake --build build/tsan -j $(JOBS) --target store_sharing_tests reliability_thread_tests vcd_tests
	TSAN_OPTIONS=halt_on_error=1 ./build/tsan/tests/store/store_sharing_tests
	TSAN_OPTIONS=halt_on_error=1 ./build/tsan/tests/reliability/reliability_thread_tests
	cd tests/vcd && TSAN_OPTIONS=halt_on_error=1 TARVEL_TEST_DATA=$(CURDIR)/tests ../../build/tsan/tests/vcd/vcd_tests

# The long form of the reliability campaigns, in the sanitized builds of `make test`: each
# campaign for SOAK_SECONDS, then each fuzz target for SOAK_FUZZ_SECONDS, one at a time and at low
# priority. Figures and findings go to build/soak/report.txt (docs/reliability.md).
SOAK_SECONDS ?= 300
SOAK_FUZZ_SECONDS ?= 1800
soak: deps
	cmake -S . -B build/asan $(GEN) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ \
	  -DTARVEL_SANITIZE=address,undefined -DTARVEL_FUZZ=ON -DTARVEL_BENCH=OFF
	cmake --build build/asan -j $(JOBS) --target reliability_tests raw_reader_fuzz typeinfo_fuzz vcd_import_fuzz
	cmake -S . -B build/tsan $(GEN) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++ \
	  -DTARVEL_SANITIZE=thread -DTARVEL_BENCH=OFF
	cmake --build build/tsan -j $(JOBS) --target reliability_thread_tests
	SOAK_SECONDS=$(SOAK_SECONDS) SOAK_FUZZ_SECONDS=$(SOAK_FUZZ_SECONDS) scripts/soak.sh build/asan build/tsan build/soak

# Benchmarks (Release); figures go to docs/performance.md. The comparison harness runs first and
# rewrites its table there; the FST peer is built when verilator's sources are installed
# (scripts/install-deps.sh bench, which this runs).
bench:
	@scripts/install-deps.sh bench
	cmake -S . -B build/release $(GEN) -DCMAKE_BUILD_TYPE=Release -DTARVEL_TESTS=OFF -DTARVEL_BENCH=ON
	cmake --build build/release -j $(JOBS)
	./build/release/bench/compare/compare_bench --events $(BENCH_EVENTS) --tarvel build/release/tools/tarvel/tarvel \
	  --designs tests/designs --docs docs/performance.md
	./build/release/bench/store_bench
	./build/release/bench/stream_reader_bench
	bench/vcd/vcd_bench.sh build/release/tools/tarvel/tarvel
	if [ -e build/release/python/bench/python_bench_one_signal ]; then \
	  PYTHONPATH=build/release/python /usr/bin/python3 python/bench/read_one_signal.py \
	    build/release/python/bench/python_bench_one_signal; fi

# A Debian package of a Release build (libraries, headers, CMake and pkg-config files, the tool):
# build/release/tarvel_<version>_<arch>.deb. `cmake --install build/release --prefix DIR` installs
# the same without a package.
package: deps
	cmake -S . -B build/release $(GEN) -DCMAKE_BUILD_TYPE=Release -DTARVEL_TESTS=OFF
	cmake --build build/release -j $(JOBS) --target tarvel sorvat tarvel_cli
	cd build/release && cpack -G DEB

clean:
	rm -rf build
