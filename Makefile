# Front door: `make example` analyses the bundled example study,
# `make check` builds with sanitizers and runs the whole test suite, `make bench`
# times the voxel passes, `make calibrate` measures the p values on null studies
# (`make calibrate-smooth` those of the ratio smoothing on smoother ones),
# `make fuzz` runs each fuzzing harness for FUZZ_SECONDS.
JOBS ?= $(shell nproc 2>/dev/null || echo 2)
BUILD ?= build
CHECK_BUILD ?= build-check
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
PROGRAMS = fmri-rem fmri-rem-simulate fmri-rem-summary fmri-rem-import fmri-rem-export \
           fmri-rem-report
MAKEFLAGS += --no-print-directory

.PHONY: setup build example check bench bench-scale calibrate calibrate-smooth fuzz clean

setup:
	@bash scripts/setup.sh

# The programs only; the tests are built by `make check`.
build: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target $(PROGRAMS)

example: build
	@bash scripts/run-example.sh $(BUILD)

# The Release build that users run and the sanitizer build (stopping at the
# first report of undefined behaviour), each with every test, then the
# style of every C++ file.
check: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)
	@cmake -S . -B $(CHECK_BUILD) -DCMAKE_BUILD_TYPE=Release -DFMRI_REM_SANITIZE=ON >/dev/null
	@cmake --build $(CHECK_BUILD) -j $(JOBS)
	@cd $(CHECK_BUILD) && ctest --output-on-failure -j $(JOBS)
	@bash scripts/check-format.sh

# Timing of the fast and the plain voxel passes on simulated studies.
bench: build
	@bash scripts/bench.sh $(BUILD)

# Wall and CPU time, peak memory and input read rate of "reml converged" on
# cohort studies of 2 x 100, 2 x 1,000 and 2 x 5,000 files (needs about 10 GB
# of disk for the largest, deleted after timing; a quarter of an hour or more).
bench-scale: build
	@bash scripts/bench_scale.sh $(BUILD)

# Share of p values below 0.05, 0.01, 0.001 on simulated null studies, for
# "reml classic" and "reml converged" (a few minutes).
calibrate: build
	@bash scripts/calibrate.sh $(BUILD)

# The same for the ratio smoothing on null studies whose subject deviations
# are smoother than the stated first-level smoothing, with the degrees of
# freedom from the stated and from the estimated smoothness (several minutes).
calibrate-smooth: build
	@bash scripts/calibrate-smooth.sh $(BUILD)

# Each libFuzzer harness of fuzz/ for FUZZ_SECONDS seconds (clang, ASan, UBSan).
fuzz: setup
	@FUZZ_BUILD=$(FUZZ_BUILD) FUZZ_SECONDS=$(FUZZ_SECONDS) JOBS=$(JOBS) bash scripts/fuzz.sh

clean:
	rm -rf $(BUILD) $(CHECK_BUILD) $(FUZZ_BUILD)
