# make run   : set up, build, and render the demo song to build/demo.wav
# make test  : set up, build, and run every test (release, then engine tests under ASan/UBSan and TSan)
# make bench : set up, build, and run the benchmarks
# make fuzz  : set up, build the fuzzers, and run each for FUZZ_SECONDS (default 60), or FUZZ_RUNS
#              executions, from real files; FUZZ_TARGETS="project_fuzz ..." picks some

JOBS ?= $(shell nproc)
CMAKE ?= cmake
CTEST ?= ctest
SANITIZED_TARGETS = sanitized_tests
SANITIZED_LABELS = engine|core|platform|seq|fx|sound|files

.PHONY: all bootstrap release run test test-release test-asan test-tsan bench fuzz clang clean

all: release

bootstrap:
	@scripts/bootstrap

build/release/build.ninja: | bootstrap
	$(CMAKE) --preset release

release: bootstrap build/release/build.ninja
	$(CMAKE) --build --preset release -j $(JOBS)

run: release
	build/release/tools/vantrell-cli render --demo -o build/demo.wav
	@echo "The demo song is in $(CURDIR)/build/demo.wav"

test: test-release test-asan test-tsan

test-release: release
	$(CTEST) --test-dir build/release --output-on-failure -j $(JOBS)

build/asan/build.ninja: | bootstrap
	$(CMAKE) --preset asan

test-asan: bootstrap build/asan/build.ninja
	$(CMAKE) --build --preset asan -j $(JOBS) --target $(SANITIZED_TARGETS)
	$(CTEST) --test-dir build/asan --output-on-failure -j $(JOBS) -L '$(SANITIZED_LABELS)'

build/tsan/build.ninja: | bootstrap
	$(CMAKE) --preset tsan

test-tsan: bootstrap build/tsan/build.ninja
	$(CMAKE) --build --preset tsan -j $(JOBS) --target $(SANITIZED_TARGETS)
	$(CTEST) --test-dir build/tsan --output-on-failure -j $(JOBS) -L '$(SANITIZED_LABELS)'

bench: release
	for b in build/release/bench/*_bench; do $$b || exit 1; done

fuzz: bootstrap
	JOBS=$(JOBS) FUZZ_SECONDS=$(or $(FUZZ_SECONDS),60) FUZZ_RUNS=$(FUZZ_RUNS) FUZZ_TARGETS="$(FUZZ_TARGETS)" scripts/fuzz

clang: bootstrap
	$(CMAKE) --preset clang
	$(CMAKE) --build --preset clang -j $(JOBS)

clean:
	rm -rf build
