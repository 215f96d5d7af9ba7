# The two commands of the README: `make test` and `make demo`. Both install
# what is missing first (scripts/bootstrap).
JOBS ?= $(shell nproc)
export WINEDEBUG ?= -all
export WINEDLLOVERRIDES ?= mscoree,mshtml=

.PHONY: test bench demo bootstrap release asan mingw clean

test: bootstrap release asan mingw
	@echo "make test: release, asan and Windows (Wine) suites passed"

bootstrap:
	@scripts/bootstrap

release asan: bootstrap
	cmake --preset $@
	cmake --build --preset $@ -j $(JOBS)
	ctest --preset $@ -j $(JOBS)

mingw: bootstrap
	cmake --preset mingw
	cmake --build --preset mingw -j $(JOBS)
	ctest --preset mingw

# A noisy spoken sample through the chain with several presets; results,
# meter tables and spectrograms land in demo-out/.
demo: bootstrap
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target qor-process
	scripts/demo

bench: bootstrap
	cmake --preset release
	cmake --build --preset release -j $(JOBS)
	cmake --build --preset release --target run_benchmarks

clean:
	rm -rf build
