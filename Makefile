# Front door: `make test` builds and runs every test this machine can run; `make demo` runs the
# host tool on its built-in synthetic scene. PRESET=ci is the same build with warnings as errors,
# as CI runs it.
PRESET ?= default
JOBS ?= $(shell nproc)

.PHONY: all build test demo bench bench-deps format clean

all: build

build:
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET) -j $(JOBS)

# Every benchmark program, briefly and one at a time, and make demo's run, then the speed table (each figure beside
# memcpy of the same bytes and its target); fails when any fails (bench/run.sh).
# VMKTR_BENCH_REPETITIONS=N runs each case N times and the table takes the medians.
bench:
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) -j $(JOBS) --target vmktr_benchmarks vmktr_host || \
	  { echo "make bench: the benchmarks could not be built (they need libbenchmark-dev)"; exit 1; }
	bash bench/run.sh build/$(PRESET)

# What the benchmarks compare against (OpenCV's StereoSGBM), from Debian: bench/packages.txt.
bench-deps:
	bash bench/install_packages.sh

DEMO_OUT ?= demo-out
DEMO_FRAMES ?= 60

# The built-in scene: a figure before a textured background, focus on the figure, an f-number
# ramp from f/4 to f/1.4, 1920x1080 main preview. Only the runner and what it loads are built.
demo:
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) -j $(JOBS) --target vmktr_host
	./build/$(PRESET)/tools/host/vmktr_host --out $(DEMO_OUT) --frames $(DEMO_FRAMES)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
