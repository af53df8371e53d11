# Front door: `make test` builds and runs every test this machine can run; `make demo` runs the
# host tool on its built-in scene once the tool exists.
PRESET ?= default
JOBS ?= $(shell nproc)

.PHONY: all build test demo bench format clean

all: build

build:
	cmake --preset $(PRESET)
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET) -j $(JOBS)

bench: build
	./build/$(PRESET)/bench/bench_image

demo:
	@echo "make demo: the host tool that runs the library on its built-in synthetic scene is not built yet."
	@echo "Until it lands, 'make test' builds the library and runs its tests."
	@exit 1

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf build
