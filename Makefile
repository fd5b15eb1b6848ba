# Two commands do all the set-up from a fresh clone:
#   make demo   builds everything and runs smtpfm over samples/
#   make test   builds everything twice (plain, and with AddressSanitizer and
#               UndefinedBehaviorSanitizer) and runs the whole suite in both,
#               then runs every fuzz target for 30 seconds from its seeds
#               (make test-fuzz alone)
#   make fuzz   runs every fuzz target for FUZZ_SECONDS (default 600) each,
#               growing a corpus of its own in build-fuzz/fuzz-corpus
BUILD ?= build
ASAN_BUILD ?= build-asan
JOBS ?= $(shell nproc)
BUILD_TYPE ?= RelWithDebInfo
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 600
FUZZ_TEST_SECONDS ?= 30
FUZZ_JOBS ?= 1
FUZZ_TARGETS ?= host_walk header encoded_words codecs block_scanner

.PHONY: deps mutants all build build-asan build-fuzz demo test test-plain test-asan test-fuzz fuzz bench bench-micro bench-peer-packages bench-explode bench-refuse bench-hostile bench-mbox bench-milter clean

all: build

# What a fresh Debian machine lacks, installed before anything configures
# (the one list lives in tools/deps.sh; CI runs the same step).
deps:
	@sh tools/deps.sh

$(BUILD)/Makefile: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)

$(ASAN_BUILD)/Makefile: | deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DSMTPFM_SANITIZE=ON -DSMTPFM_BENCH=OFF

# The fuzz targets need clang and its fuzzer runtime (clang-14,
# libclang-rt-14-dev).
$(FUZZ_BUILD)/Makefile: | deps
	CC=clang-14 CXX=clang++-14 cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DSMTPFM_FUZZ=ON -DSMTPFM_BENCH=OFF

build: deps $(BUILD)/Makefile
	cmake --build $(BUILD) -j$(JOBS)

build-asan: deps $(ASAN_BUILD)/Makefile
	cmake --build $(ASAN_BUILD) -j$(JOBS)

build-fuzz: deps $(FUZZ_BUILD)/Makefile
	cmake --build $(FUZZ_BUILD) -j$(JOBS) --target fuzz_targets

demo: build
	@sh host/demo.sh $(BUILD)

test-plain: build
	ctest --test-dir $(BUILD) --output-on-failure -j$(JOBS)

# Any sanitizer finding aborts the test that made it.
test-asan: build-asan
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j$(JOBS)

# Each fuzz target for a short while from its seeds alone: a finding fails.
test-fuzz: build-fuzz
	FUZZ_JOBS=$(FUZZ_JOBS) sh fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_TEST_SECONDS) fresh $(FUZZ_TARGETS)

test: test-plain test-asan test-fuzz

fuzz: build-fuzz
	FUZZ_JOBS=$(FUZZ_JOBS) sh fuzz/run.sh $(FUZZ_BUILD) $(FUZZ_SECONDS) keep $(FUZZ_TARGETS)

# make bench: the micro benchmarks, the explode comparison with the peer
# libraries (installed here when missing; they are not part of the normal
# build) and what refusing large items that are no mail costs.
# make bench-explode and make bench-refuse run one part alone.
PEER_PACKAGES = libgmime-3.0-dev libmimetic-dev libetpan-dev
SUDO = $(shell [ "$$(id -u)" = 0 ] || echo sudo)

bench: bench-micro
	@$(MAKE) --no-print-directory bench-explode
	@$(MAKE) --no-print-directory bench-refuse

bench-micro: build
	@for b in $(BUILD)/bench/*_bench; do echo "== $$b"; $$b --benchmark_min_time=0.5; done

bench-peer-packages:
	@dpkg -s $(PEER_PACKAGES) pkg-config >/dev/null 2>&1 || \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y $(PEER_PACKAGES) pkg-config || \
	  { $(SUDO) apt-get update && DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y $(PEER_PACKAGES) pkg-config; }

bench-explode: build bench-peer-packages
	cmake -S bench/peers -B $(BUILD)/bench-peers -DCMAKE_BUILD_TYPE=$(BUILD_TYPE)
	cmake --build $(BUILD)/bench-peers -j$(JOBS)
	python3 bench/gen_inputs.py $(BUILD)/bench-inputs
	python3 bench/run_bench.py --build $(BUILD) --peers $(BUILD)/bench-peers --inputs $(BUILD)/bench-inputs

# /usr/bin/time reports each command's peak memory.
bench-refuse: build
	@[ -x /usr/bin/time ] || DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y time
	python3 bench/refuse.py $(BUILD)

# The hostile inputs at n and 10n: HOSTILE_RUNS processes, each ratio and
# their median.
HOSTILE_RUNS ?= 3
bench-hostile: build
	python3 bench/hostile_ratios.py $(BUILD) --runs $(HOSTILE_RUNS)

# smtpfm scan -j 2 over a generated mbox of MBOX_GIB GiB: its peak memory
# beside the largest message's size.
MBOX_GIB ?= 2
bench-mbox: build
	sh bench/mbox_scan.sh $(BUILD) $(MBOX_GIB)

# Messages through smtpfm milter over 2 and 8 connections (the explode
# inputs and MILTER_SMALL small messages) beside the cost of the walk that
# smtpfm tree makes.
MILTER_SMALL ?= 10000
bench-milter: build
	python3 bench/gen_inputs.py $(BUILD)/bench-inputs
	$(BUILD)/milter/milter_bench $(BUILD)/bin/smtpfm $(BUILD)/bench-inputs $(MILTER_SMALL)

# Small faults put into FILES one at a time; the report lists those that
# no test catches. MUTANTS=0 takes every mutant.
MUTANTS ?= 300
SEED ?= 1
mutants: deps
	python3 tools/mutants.py $(FILES) -n $(MUTANTS) --seed $(SEED)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) build-mutants
