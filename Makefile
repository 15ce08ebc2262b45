# The two commands of the README: `make run` and `make test`. Both install what they need first.
PRESET ?= default
ARGS ?=

.PHONY: setup configure build run test test-asan test-tsan coverage fuzz bench format clean

setup:
	@bash scripts/setup.sh

configure: setup
	@cmake --preset $(PRESET) >/dev/null

build: configure
	@cmake --build --preset $(PRESET)

# Only what the app needs, so the first start does not wait for the tests to compile.
run: configure
	@cmake --build --preset $(PRESET) --target orinlink
	./build/$(PRESET)/OrinLink/orinlink $(ARGS)

test: build
	ctest --preset $(PRESET)

test-asan:
	@$(MAKE) --no-print-directory test PRESET=asan

test-tsan:
	@$(MAKE) --no-print-directory test PRESET=tsan

# The whole suite on a gcov build, then the production code's line coverage. gcov may print a
# damaged counter as negative; without the flag gcovr's workers then hang instead of failing.
coverage:
	@find build/coverage -name '*.gcda' -delete 2>/dev/null || true
	@$(MAKE) --no-print-directory test PRESET=coverage
	gcovr -r . --filter OrinLink/ --filter OrinLinkShared/ -j 2 --gcov-ignore-parse-errors --print-summary --txt build/coverage/coverage.txt build/coverage

# Short runs of every fuzz target; FUZZ_SECONDS sets how long each one runs.
fuzz: setup
	@bash scripts/fuzz.sh $(or $(FUZZ_SECONDS),30)

bench:
	@$(MAKE) --no-print-directory build PRESET=release
	@bash scripts/bench.sh

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build
