# Every way to use this checkout is a target here.
# `make help` lists them.

JOBS ?= $(shell nproc)
# Tests wait more than they compute.
CTEST_JOBS ?= $(shell expr 3 \* $$(nproc))
FUZZ_SECONDS ?= 600
SOAK_RUNS ?= 200000
SOAK_ATTACKS ?= 20000
PREFIX ?= /usr/local
DESTDIR ?=

.DEFAULT_GOAL := help

.PHONY: help
help: ## List the targets
	@grep -hE '^[a-z -]+:.*## ' $(MAKEFILE_LIST) | sed -E 's/^([a-z -]+):.*## (.*)/  make \1\t\2/' | expand -t 34

.PHONY: demo
demo: deps-build ## Build and watch a selection among simulated headends
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target ahs ahs-gateways ahs-wan
	simulator/demo.sh build/release

.PHONY: lib
lib: deps-lib ## Build only what is installed: library and command, for PREFIX
	cmake --preset lib -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build --preset lib -j $(JOBS)

# Uses what `make lib` has built: the user who may write to PREFIX often cannot build.
.PHONY: install
install: ## Install library and command below PREFIX (/usr/local), inside DESTDIR if set
	test -e build/lib/packaging/libahs.so || $(MAKE) lib
	DESTDIR=$(DESTDIR) cmake --install build/lib --prefix $(PREFIX)
	$(if $(DESTDIR),,ldconfig || echo "ldconfig did not run: the loader may not find the library yet")

.PHONY: test
test: deps-test release ## Build and run the tests
	ctest --preset release -LE world -j $(CTEST_JOBS)

.PHONY: test-world
test-world: deps-world deb-check release fuzzers ## Run the tests with more programs, packages, fuzzers and the benchmarks' ratios
	ctest --preset release -L world -j $(CTEST_JOBS)
	FUZZ_SECONDS=30 tools/fuzz.sh build/fuzz
	bench/run.sh build/release --check

.PHONY: docs
docs: deps-build ## Write the command's options and exit statuses into docs/cli.md
	cmake --preset release
	cmake --build --preset release -j $(JOBS) --target ahs-describe
	build/release/bin/ahs-describe docs/cli.md > build/cli.md
	mv build/cli.md docs/cli.md

.PHONY: fuzz
fuzz: fuzzers ## Fuzz every reader of foreign text, each for FUZZ_SECONDS (600)
	FUZZ_SECONDS=$(FUZZ_SECONDS) tools/fuzz.sh build/fuzz

.PHONY: soak
soak: deps-world deps-lint release ## Run for hours: races under two sanitizers, attacks, a fault at every call, many selections, valgrind, clang's analyzer in depth, mutants
	cmake --preset asan
	cmake --build --preset asan -j $(JOBS) --target selection_stress ahs ahs-gateways c_client
	cmake --preset tsan
	cmake --build --preset tsan -j $(JOBS) --target selection_stress
	tests/stress/soak.sh build/asan build/tsan $(SOAK_RUNS)
	for build in release asan; do tests/attack/attack.py build/$$build --seed $$(date +%s) --count $(SOAK_ATTACKS) || exit; done
	build/release/bin/many_selections --runs 10000
	AHS_CACHE_KILLS=1000 build/release/bin/cache_kill_test
	tests/host/valgrind.sh build/release 100
	AHS_FAULTS=all build/release/bin/faults_test
	tools/lint.sh $(JOBS) deep
	JOBS=$(JOBS) tests/mutants/run.sh

.PHONY: mutants
mutants: deps-test ## Break each promise in turn and check that its tests fail: a quarter of an hour
	JOBS=$(JOBS) tests/mutants/run.sh

.PHONY: fuzzers
fuzzers: deps-world
	cmake --preset fuzz
	cmake --build --preset fuzz -j $(JOBS)

.PHONY: asan tsan debug clang
clang: deps-lint
asan tsan debug clang: deps-world ## Build and run all tests: sanitizers, no optimisation, clang
	cmake --preset $@
	cmake --build --preset $@ -j $(JOBS)
	ctest --preset $@ -j $(CTEST_JOBS)

.PHONY: lint
lint: deps-lint ## Check formatting, clang's warnings and lock annotations, clang-tidy, shell scripts
	tools/lint.sh $(JOBS)

.PHONY: figures
figures: ## Print sizes: lines by room, the cache, include circles, longest functions
	tools/figures.sh

.PHONY: bench
bench: deps-bench release ## Measure beside other programs (needs the right to make namespaces)
	bench/run.sh build/release $(if $(SAVE),--save $(SAVE)) $(if $(AGAINST),--against $(AGAINST))

.PHONY: deb
deb: deps-deb ## Build Debian packages into build/deb: library, development files, command
	tools/deb.sh

.PHONY: deb-check
deb-check: deb ## Build the packages twice, compare, and use them in a clean root (needs root)
	tests/package/reproducible_test.sh build/deb
	tests/package/clean_root_test.sh . build/clean-root build/deb

.PHONY: on-debian-13
on-debian-13: deps-deb ## Pass the tests and use the packages in a clean root of Debian 13 (needs root)
	tests/package/on_debian.sh trixie . build/clean-root

.PHONY: abi
abi: deps-world release ## Write the binary interface's description, which its test compares: see docs/versions.md
	tests/package/abi_test.sh . build/release --write

.PHONY: reference
reference: deps-world ## Write the reference of the library's headers: build/reference/index.html
	cmake --preset release
	mkdir -p build/reference
	cd build/reference && doxygen ../release/packaging/Doxyfile

.PHONY: release
release: deps-build ## Build, optimised, into build/release
	cmake --preset release
	cmake --build --preset release -j $(JOBS)

.PHONY: deps-lib deps-build deps-test deps-world deps-lint deps-bench deps-deb
deps-lib deps-build deps-test deps-world deps-lint deps-bench deps-deb:
	@tools/install-packages.sh $(@:deps-%=%)

.PHONY: clean
clean: ## Remove everything that was built
	rm -rf build
