# make test: install what is missing, build every tested preset, run the suite
# on each (x86-64, address+undefined sanitizers, thread sanitizer, ARMv7 NEON
# under qemu-arm), then check the format of the sources.
TEST_PRESETS ?= host host-asan host-tsan armhf
ALL_PRESETS := host host-asan host-tsan armhf
JOBS ?= $(shell nproc)

.PHONY: all build setup media demo bench bench-armhf bench-instructions bench-instructions-armhf mutate test check-format $(addprefix test-,$(ALL_PRESETS)) clean

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
# copy; the JSON report is kept in out/bench/ for comparisons. Then what the
# GStreamer element adds per buffer over qimra_process alone.
bench: build media
	@cmake --build --preset host -j $(JOBS) --target qimra-bench
	@mkdir -p out/bench
	@build/host/bench/qimra-bench --benchmark_out=out/bench/qimra-bench.json --benchmark_out_format=json
	@if cmake --build --preset host -j $(JOBS) --target qimra-gst-bench >/dev/null 2>&1; then \
	  GST_REGISTRY_1_0=build/host/gst/registry.bin build/host/gst/qimra-gst-bench | tee out/bench/qimra-gst-bench.txt; \
	else echo "qimra-gst-bench: the GStreamer element is not built here"; fi

# qimra-bench for ARMv7 devices: one statically linked file, on minibench
# (bench/minibench, the in-tree stand-in for Google Benchmark, which Debian
# lacks for armhf). Copy it to the device with the frames and run it there;
# under qemu its times mean nothing.
bench-armhf: setup media
	@cmake --preset armhf >/dev/null
	@cmake --build --preset armhf -j $(JOBS) --target qimra-bench
	@echo "static ARMv7 qimra-bench: build/armhf/bench/qimra-bench"
	@echo "run it on an Android device (for ARM Linux, scp and ssh the same two paths):"
	@echo "  adb push build/armhf/bench/qimra-bench .cache/media/yuv /data/local/tmp/"
	@echo "  adb shell /data/local/tmp/qimra-bench --media-dir=/data/local/tmp"

# Instructions per 1080p mode-0 frame (both threads), counted by callgrind:
# a figure that does not jitter, beside the timings of make bench.
INSTR_FRAMES ?= 2
bench-instructions: build media
	@cmake --build --preset host -j $(JOBS) --target qimra-frame-instructions
	@mkdir -p out/bench
	@frames=$$(valgrind --tool=callgrind --instr-atstart=no --callgrind-out-file=out/bench/callgrind.out \
	    --log-file=out/bench/callgrind.log build/host/bench/qimra-frame-instructions \
	    .cache/media/yuv/path_1920x1080.yuv 1920 1080 $(INSTR_FRAMES) 2>/dev/null | tail -n 1) && \
	  total=$$(sed -n 's/^totals: *\([0-9]*\).*/\1/p' out/bench/callgrind.out) && \
	  test -n "$$frames" -a -n "$$total" && \
	  echo "instructions per 1080p mode-0 frame (callgrind, both threads): $$((total / frames))"

# Instructions per steady-state ARMv7 frame, by stage, in modes 0 and 2 at
# 720p, 1080p and 4K: the static ARMv7 driver runs under qemu-arm with a
# counting plugin (built here with the host compiler). See
# scripts/arm-instructions for how the frames and stages are counted.
bench-instructions-armhf: setup media
	@cmake --preset armhf >/dev/null
	@cmake --build --preset armhf -j $(JOBS) --target qimra-frame-instructions
	@mkdir -p build/qemu-plugin out/bench
	@cc -O2 -Wall -Wextra -shared -fPIC -o build/qemu-plugin/qimra_count.so bench/qemu_count_plugin.c
	@/usr/bin/python3 scripts/arm-instructions --json out/bench/arm-instructions.json

test: setup media
	@set -e; for p in $(TEST_PRESETS); do $(MAKE) --no-print-directory test-$$p; done
	@$(MAKE) --no-print-directory check-format

# Every C++ source as .clang-format writes it (clang-format --dry-run -Werror).
check-format:
	@scripts/check-format

# A static pattern rule: make skips implicit rules for phony targets.
$(addprefix test-,$(ALL_PRESETS)): test-%:
	@echo "== $* =="
	@cmake --preset $* >/dev/null
	@cmake --build --preset $* -j $(JOBS)
	@ctest --preset $* -j $(JOBS)

clean:
	rm -rf build

# make soak: 10,000 frames per mode at 1280x720 and 1,000 init/teardown
# cycles, checking memory and reproducibility (minutes; not part of test).
soak: build media
	@cmake --build --preset host -j $(JOBS) --target qimra_soak
	@build/host/tests/qimra_soak

# make fuzz: every libFuzzer target for FUZZ_SECONDS (default 60) each, with
# the address and undefined-behaviour sanitizers (clang; see fuzz/).
# FUZZ_TARGETS="cpp_api gst_element" picks targets; FUZZ_RUNS=N stops each
# after N inputs; FUZZ_PIECE=N inputs per fuzzer process (the corpus carries
# over), FUZZ_WORKERS=2 two processes a piece. Long campaigns: under nice.
FUZZ_SECONDS ?= 60
fuzz: setup media
	@FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_TARGETS="$(FUZZ_TARGETS)" FUZZ_RUNS=$(FUZZ_RUNS) FUZZ_PIECE=$(FUZZ_PIECE) \
	  FUZZ_WORKERS=$(FUZZ_WORKERS) JOBS=$(JOBS) scripts/fuzz

# make mutate: plants each single-line fault of scripts/mutations.txt into a
# scratch copy (out/mutate/tree), rebuilds the host preset and runs the suite
# to its first failure; prints each fault caught or missed and the total.
mutate: setup media
	@scripts/mutate
