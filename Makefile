# Front door: `make example` analyses the bundled example study,
# `make check` builds with sanitizers and runs the whole test suite, `make bench`
# times the voxel passes, `make fuzz` runs each fuzzing harness for FUZZ_SECONDS.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
BUILD ?= build
CHECK_BUILD ?= build-check
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
PROGRAMS = fmri-rem fmri-rem-simulate fmri-rem-summary
MAKEFLAGS += --no-print-directory

.PHONY: setup build example check bench fuzz clean

setup:
	@bash scripts/setup.sh

# The programs only; the tests are built by `make check`.
build: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target $(PROGRAMS)

example: build
	@bash scripts/run-example.sh $(BUILD)

check: setup
	@cmake -S . -B $(CHECK_BUILD) -DCMAKE_BUILD_TYPE=Release -DFMRI_REM_SANITIZE=ON >/dev/null
	@cmake --build $(CHECK_BUILD) -j $(JOBS)
	@cd $(CHECK_BUILD) && ctest --output-on-failure -j $(JOBS)

# Timing of the fast and the plain voxel passes on simulated studies.
bench: build
	@bash scripts/bench.sh $(BUILD)

# Each libFuzzer harness of fuzz/ for FUZZ_SECONDS seconds (clang, ASan, UBSan).
fuzz: setup
	@FUZZ_BUILD=$(FUZZ_BUILD) FUZZ_SECONDS=$(FUZZ_SECONDS) JOBS=$(JOBS) bash scripts/fuzz.sh

clean:
	rm -rf $(BUILD) $(CHECK_BUILD) $(FUZZ_BUILD)
