# Thin wrapper over the CMake presets. `make run` builds and starts the service; `make test` builds and
# runs every test (Linux debug, sanitizers, and the Windows build under Wine); `make package` builds the
# Debian package and the Windows zip into build/packages.
.PHONY: deps deps-build package run build test test-dev test-asan test-windows test-fuzz test-format bench fuzz format clean

JOBS ?= $(shell nproc)

deps:
	@scripts/deps.sh test

deps-build:
	@scripts/deps.sh build

build: deps-build
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)

# Linux: tavrel_VERSION_ARCH.deb from the release build; Windows: tavrel-VERSION-win64.zip from the cross build.
package:
	@scripts/deps.sh package
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)
	cmake --preset windows >/dev/null
	cmake --build --preset windows -j $(JOBS) --target tavrel
	cd build/release && cpack -G DEB -B ../packages
	cd build/windows && cpack -G ZIP -B ../packages
	rm -rf build/packages/_CPack_Packages
	@ls -l build/packages

run: build
	./build/release/tavrel $(ARGS)

test: deps test-format test-dev test-asan test-windows test-fuzz

test-format:
	clang-format --dry-run --Werror $$(git ls-files '*.cpp' '*.h')

test-dev:
	cmake --preset dev >/dev/null
	cmake --build --preset dev -j $(JOBS)
	ctest --preset dev -j $(JOBS)

test-asan:
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan -j $(JOBS) -LE 'netns|package'

test-windows:
	cmake --preset windows >/dev/null
	cmake --build --preset windows -j $(JOBS)
	scripts/wine-ctest.sh
	tests/wine/smoke.sh build/windows/tavrel.exe

bench:
	@scripts/deps.sh bench
	cmake --preset bench >/dev/null
	cmake --build --preset bench -j $(JOBS)
	bash bench/run-all.sh

test-fuzz:
	scripts/fuzz-smoke.sh

fuzz: deps
	FUZZ_SECONDS=$${FUZZ_SECONDS:-300} scripts/fuzz-smoke.sh

format:
	clang-format -i $$(git ls-files '*.cpp' '*.h')

clean:
	rm -rf build
