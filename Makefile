# make test: install what is missing, build every tested preset, run the suite
# on each (x86-64, address+undefined sanitizers, thread sanitizer, ARMv7 NEON
# under qemu-arm).
TEST_PRESETS ?= host host-asan host-tsan armhf
ALL_PRESETS := host host-scalar host-asan host-tsan armhf
JOBS ?= $(shell nproc)

.PHONY: all build setup media demo bench test $(addprefix test-,$(ALL_PRESETS)) clean

all: build

setup:
	@scripts/setup

build: setup
	@cmake --preset host >/dev/null
	@cmake --build --preset host -j $(JOBS)

media: setup
	@scripts/fetch-media

# make demo: a backlit 1080p clip enhanced into out/demo/ (see scripts/demo).
demo:
	@scripts/demo

# Benchmarks: medians per frame and per stage, with the ratio to a cold frame
# copy; the JSON report is kept in out/bench/ for comparisons.
bench: build media
	@cmake --build --preset host -j $(JOBS) --target qimra-bench
	@mkdir -p out/bench
	@build/host/bench/qimra-bench --benchmark_out=out/bench/qimra-bench.json --benchmark_out_format=json

test: setup media
	@set -e; for p in $(TEST_PRESETS); do $(MAKE) --no-print-directory test-$$p; done

# A static pattern rule: make skips implicit rules for phony targets.
$(addprefix test-,$(ALL_PRESETS)): test-%:
	@echo "== $* =="
	@cmake --preset $* >/dev/null
	@cmake --build --preset $* -j $(JOBS)
	@ctest --preset $* -j $(JOBS)

clean:
	rm -rf build
